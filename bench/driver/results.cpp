#include "results.h"

#include "stopwatch.h"

namespace bench {
namespace {

Spread SpreadOf(const std::vector<double>& sample)
{
    return {Quantile(sample, 0.5), Quantile(sample, 0.25), Quantile(sample, 0.75)};
}

}  // namespace

void Results::Add(const std::string& figure, const std::string& candidate, const Values& values)
{
    figures_[figure][candidate].push_back(values);
}

bool Results::Has(const std::string& figure, const std::string& candidate) const
{
    const auto found = figures_.find(figure);
    return found != figures_.end() && found->second.count(candidate) != 0;
}

Spread Results::ValueOf(const std::string& figure, const std::string& key, const std::string& candidate) const
{
    std::vector<double> sample;
    for (const Values& round : figures_.at(figure).at(candidate)) {
        sample.push_back(round.at(key));
    }
    return SpreadOf(sample);
}

Spread Results::RatioOf(const std::string& figure, const std::string& key, const std::string& candidate,
                        const std::string& base) const
{
    const Rounds& above = figures_.at(figure).at(candidate);
    const Rounds& below = figures_.at(figure).at(base);
    std::vector<double> sample;
    for (size_t round = 0; round < above.size() && round < below.size(); ++round) {
        sample.push_back(above[round].at(key) / below[round].at(key));
    }
    return SpreadOf(sample);
}

void Results::WriteTsv(std::ostream& out) const
{
    out << "figure\tkey\tcandidate\tmedian\tquartile1\tquartile3\trounds\n";
    for (const auto& [figure, candidates] : figures_) {
        for (const auto& [candidate, rounds] : candidates) {
            for (const auto& value : rounds.front()) {
                const Spread spread = ValueOf(figure, value.first, candidate);
                out << figure << '\t' << value.first << '\t' << candidate << '\t' << spread.median << '\t' << spread.low
                    << '\t' << spread.high << '\t' << rounds.size() << '\n';
            }
        }
    }
}

}  // namespace bench
