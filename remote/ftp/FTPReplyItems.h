// What replies on the control connection say of single items.
#pragma once

#include <optional>
#include <string_view>

#include "remote/ftp/FTPFacts.h"
#include "remote/ftp/FTPReply.h"

namespace ombra {

// The item that MLST tells of; absent when it tells of none.
std::optional<FTPItem> itemOfMLST(const FTPReply& reply);
// The item of that path among the lines of a STAT, which are those of LIST.
std::optional<FTPItem> itemOfSTAT(const FTPReply& reply, std::string_view path, NSDate now);
// "213 1024"; absent for refusals.
std::optional<uint64_t> sizeOfReply(const FTPReply& reply);
// "213 20240514093000"; absent for refusals.
std::optional<NSDate> dateOfReply(const FTPReply& reply);

}  // namespace ombra
