#pragma once

#include "bench/IndexHost.h"
#include "bench/IndexReport.h"
#include "bench/IndexTrees.h"

#include <string>

/// The parts of the file index's bench. Each prints its tables.
namespace korvane::bench {

struct IndexRun {
    std::string folder; ///< For everything on the disk; removed by the caller.
    std::size_t rows;
    bool quick; ///< Fewer repetitions and shorter waits.
    Report &report;
};

/// Searches beside the bare statement and plocate.
void measureSearches(IndexRun &run, IndexHost &host, const Listing &listing);

/// Publishes a listing the first time, again without a change and with one row in a hundred changed, and leaves the
/// store full. What small doings and searches wait meanwhile. `listing` is then what the store holds.
struct PublicationTables {
    PublicationTables();
    Table waits, searches;
};
void measurePublications(IndexRun &run, IndexHost &host, Listing &listing, PublicationTables &tables);

/// A tree on the disk: walks, scans, live changes, idle.
void measureDisk(IndexRun &run);

inline std::string milliseconds(double value) { return number(value, value < 10 ? 2 : value < 100 ? 1 : 0); }

} // namespace korvane::bench
