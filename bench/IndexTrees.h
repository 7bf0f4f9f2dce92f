#pragma once

#include "CommandCore/IndexedFile.h"

#include <cstdint>
#include <string>
#include <vector>

/// Trees of files as people and their programs make them, always the same for the same seed.
namespace korvane::bench {

/// Terms that a listing holds, with about as many matches each.
struct PlantedTerm {
    const char *text; ///< Lower case; in names of the listing in any case.
    double matches; ///< So many, or a share of all rows when it is below 1.
};
inline constexpr PlantedTerm plantedTerms[] = {
    {"quixotry", 1}, {"marigold", 100}, {"hyacinth", 1'000}, {"juniper", 10'000}, {"larkspur", 0.036}, {"photo", 0.255}};

/// What lies below two roots, of which the first holds 94 of 100 rows.
struct Listing {
    std::string largeRoot, smallRoot;
    /// Folders before what is in them, the large root's rows first; the roots themselves are not among them.
    std::vector<IndexedFile> files;
    std::size_t rowsOfLargeRoot = 0;

    /// Names that contain all the texts, without regard to the case of ASCII letters.
    std::size_t count(const std::vector<std::string> &texts) const;
    std::size_t folders() const;
    double meanPath() const; ///< Bytes.
};

/// A listing of `rows` rows. 72 of 1,000 rows are folders, among them those of builds and caches.
Listing makeListing(std::size_t rows, std::uint64_t seed, std::string largeRoot, std::string smallRoot);

/// Changes one file in `count`, in random places: four of five of these get another size and time, the fifth goes and another
/// comes beside it.
void changeOneIn(Listing &listing, double count, std::uint64_t seed);

/// Makes the listing's folders and files on the disk, with sizes but without contents. Throws `std::runtime_error`.
void makeOnDisk(const Listing &listing);

} // namespace korvane::bench
