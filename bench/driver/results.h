#ifndef GAKPPC_RESULTS_H
#define GAKPPC_RESULTS_H

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "commands.h"

namespace bench {

struct Spread {
    double median;
    double low;   // first quartile
    double high;  // third quartile
};

// What was measured: for each figure and candidate one set of values for each round. Rounds of the candidates
// alternate, so that ratios are taken within a round.
class Results {
public:
    void Add(const std::string& figure, const std::string& candidate, const Values& values);
    bool Has(const std::string& figure, const std::string& candidate) const;

    Spread ValueOf(const std::string& figure, const std::string& key, const std::string& candidate) const;
    // `candidate` divided by `base`, round by round.
    Spread RatioOf(const std::string& figure, const std::string& key, const std::string& candidate,
                   const std::string& base) const;

    // One line for each figure, key and candidate.
    void WriteTsv(std::ostream& out) const;

private:
    using Rounds = std::vector<Values>;
    std::map<std::string, std::map<std::string, Rounds>> figures_;
};

}  // namespace bench

#endif
