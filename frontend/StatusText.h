// A volume's transfers in words.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "frontend/TransferStatus.h"
#include "frontend/Volumes.h"

namespace ombra {

// "812 bytes", "1.2 MB": powers of a thousand, as servers and disks are sold.
std::string bytesText(uint64_t bytes);
// "0:07", "12:30", "1:02:03".
std::string durationText(uint64_t seconds);
// "3 files", "1 file".
std::string filesText(uint64_t count);
// "[#####.....]", `width` columns in all, at least 3.
std::string progressBar(uint64_t done, uint64_t size, size_t width);
// `text`, which must be fit for a terminal, in at most `width` columns: what is too long loses its beginning,
// since the end of a path tells more.
std::string shortenedPath(std::string_view text, size_t width);

// One line of progress for a terminal of so many columns.
std::string transferLine(const TransferStatus::Transfer& transfer, size_t columns);
// A volume's block for a terminal: the volume, its transfers, what waits, the cache, the last error.
std::vector<std::string> statusBlock(const Volume& volume, size_t columns);
// The same for programs and files: each line tells its volume and stands for itself.
std::vector<std::string> statusLines(const Volume& volume);

}  // namespace ombra
