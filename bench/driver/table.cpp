#include "table.h"

#include <cstdio>

namespace bench {
namespace {

constexpr char kLibrary[] = "gakppc";
constexpr char kFloor[] = "floor";

struct Row {
    const char* title;
    const char* figure;
    const char* key;
    double unit;  // what is printed is the value divided by this
    const char* goal;
};

constexpr double kMicro = 1e3;
constexpr double kMega = 1e6;

constexpr Row kFloorRows[] = {
    {"round trip p50, us", "round_trip", "p50", kMicro, "<= 1.08"},
    {"round trip p99, us", "round_trip", "p99", kMicro, ""},
    {"round trip p99.9, us", "round_trip", "p999", kMicro, ""},
    {"round trip CPU of both, us", "round_trip", "cpu", kMicro, "<= 1.10"},
    {"burst of 32, CPU per message, us", "burst", "cpu", kMicro, "<= 1.12"},
    {"flood of heartbeats, 1000/s", "flood_heartbeat", "rate", kMicro, ">= 0.92"},
    {"flood of heartbeats, CPU per message, us", "flood_heartbeat", "cpu", kMicro, ""},
    {"flood of 1 KiB, 1000/s", "flood_1k", "rate", kMicro, ">= 0.90"},
    {"flood of 1 KiB, CPU per message, us", "flood_1k", "cpu", kMicro, ""},
    {"64 KiB messages, MB/s", "flood_64k", "bytes", kMega, ">= 0.97"},
    {"64 KiB messages, CPU per message, us", "flood_64k", "cpu", kMicro, ""},
    {"1 MiB messages, MB/s", "flood_1m", "bytes", kMega, ">= 0.97"},
    {"1 MiB messages, CPU per message, us", "flood_1m", "cpu", kMicro, ""},
    {"connect to first answer, us", "connect", "p50", kMicro, "<= 1.4"},
    {"INFO log to /dev/null: round trip p50, us", "info_round_trip", "p50", kMicro, "<= 1.45"},
    {"INFO log to /dev/null: burst CPU, us", "info_burst", "cpu", kMicro, "<= 1.9"},
    {"log line off, plain, ns", "log_off_plain", "ns", 1, "<= 8 ns"},
    {"log line off, by status, ns", "log_off_by_status", "ns", 1, "<= 8 ns"},
    {"log line filtered by the sink, ns", "log_filtered", "ns", 1, ""},
    {"log line written to /dev/null, ns", "log_written", "ns", 1, "<= 1.08"},
    {"library load / bare message classes, us", "load", "p50", kMicro, "<= 1.5"},
    {"1 worker: resident, KiB", "fleet_1", "rss_kib", 1, ""},
    {"1 worker: 1000 messages/s", "fleet_1", "rate", kMicro, ""},
    {"8 workers: resident, KiB", "fleet_8", "rss_kib", 1, ""},
    {"8 workers: 1000 messages/s", "fleet_8", "rate", kMicro, ">= 0.95"},
    {"64 workers: resident, KiB", "fleet_64", "rss_kib", 1, ""},
    {"64 workers: 1000 messages/s", "fleet_64", "rate", kMicro, ">= 0.95"},
    {"64 workers: daemon CPU per message, us", "fleet_64", "daemon_cpu", kMicro, "<= 1.5"},
    {"256 workers: resident, KiB", "fleet_256", "rss_kib", 1, "<= 1.2"},
    {"256 workers: anonymous, KiB", "fleet_256", "anon_kib", 1, "<= 1.4"},
    {"256 workers: threads", "fleet_256", "threads", 1, "258"},
    {"256 workers: 1000 messages/s", "fleet_256", "rate", kMicro, ""},
    {"256 workers: daemon CPU per message, us", "fleet_256", "daemon_cpu", kMicro, ""},
};

constexpr Row kPeerRows[] = {
    {"round trip p50, us", "round_trip", "p50", kMicro, ""},
    {"round trip p99, us", "round_trip", "p99", kMicro, ""},
    {"burst, CPU per message, us", "burst", "cpu", kMicro, ""},
    {"flood of heartbeats, 1000/s", "flood_heartbeat", "rate", kMicro, ""},
    {"flood of 1 KiB, 1000/s", "flood_1k", "rate", kMicro, ""},
    {"64 KiB messages, MB/s", "flood_64k", "bytes", kMega, ""},
    {"1 MiB messages, MB/s", "flood_1m", "bytes", kMega, ""},
};

void PrintFloorRow(const Results& results, const Row& row)
{
    const double library = results.ValueOf(row.figure, row.key, kLibrary).median / row.unit;
    if (!results.Has(row.figure, kFloor)) {
        printf("%-44s %10s %10.2f %23s   %s\n", row.title, "", library, "", row.goal);
        return;
    }
    const double floor = results.ValueOf(row.figure, row.key, kFloor).median / row.unit;
    const Spread ratio = results.RatioOf(row.figure, row.key, kLibrary, kFloor);
    printf("%-44s %10.2f %10.2f %7.3f (%6.3f-%6.3f)   %s\n", row.title, floor, library, ratio.median, ratio.low,
           ratio.high, row.goal);
}

}  // namespace

void PrintFloorTable(const Results& results)
{
    printf("%-44s %10s %10s %23s   %s\n", "figure", "FLOOR", "library", "ratio (quartiles)", "goal");
    for (const Row& row : kFloorRows) {
        if (results.Has(row.figure, kLibrary)) {
            PrintFloorRow(results, row);
        }
    }
}

void PrintPeerTable(const Results& results, const std::vector<std::string>& candidates)
{
    printf("\n%-30s", "figure (library / peer)");
    for (const std::string& candidate : candidates) {
        printf(" %16s", candidate.c_str());
    }
    printf("\n");
    for (const Row& row : kPeerRows) {
        printf("%-30s", row.title);
        for (const std::string& candidate : candidates) {
            printf(" %8.1f (%5.2f)", results.ValueOf(row.figure, row.key, candidate).median / row.unit,
                   results.RatioOf(row.figure, row.key, kLibrary, candidate).median);
        }
        printf("\n");
    }
}

}  // namespace bench
