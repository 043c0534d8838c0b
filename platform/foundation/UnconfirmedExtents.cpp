#include "platform/foundation/UnconfirmedExtents.h"

#include <algorithm>
#include <utility>

namespace ombra {
namespace {

// The first extent that ends after `offset`.
std::vector<FileExtent>::iterator firstEndingAfter(std::vector<FileExtent>& extents, uint64_t offset) {
  return std::partition_point(extents.begin(), extents.end(),
                              [offset](const FileExtent& extent) { return extent.end <= offset; });
}

}  // namespace

void UnconfirmedExtents::add(FileExtent extent) {
  const ConditionLock lock(iCondition);
  locked_add(extent);
}

void UnconfirmedExtents::locked_add(FileExtent extent) {
  if (extent.begin >= extent.end) return;
  // Swallow every extent that overlaps or touches the new one.
  auto first = std::partition_point(iExtents.begin(), iExtents.end(),
                                    [&extent](const FileExtent& other) { return other.end < extent.begin; });
  auto last = first;
  for (; last != iExtents.end() && last->begin <= extent.end; ++last) {
    extent.begin = std::min(extent.begin, last->begin);
    extent.end = std::max(extent.end, last->end);
  }
  iExtents.insert(iExtents.erase(first, last), extent);
}

void UnconfirmedExtents::remove(FileExtent extent) {
  if (extent.begin >= extent.end) return;
  const ConditionLock lock(iCondition);
  auto first = firstEndingAfter(iExtents, extent.begin);
  auto last = first;
  std::vector<FileExtent> rest;
  for (; last != iExtents.end() && last->begin < extent.end; ++last) {
    if (last->begin < extent.begin) rest.push_back({last->begin, extent.begin});
    if (last->end > extent.end) rest.push_back({extent.end, last->end});
  }
  const auto at = iExtents.erase(first, last);
  iExtents.insert(at, rest.begin(), rest.end());
}

void UnconfirmedExtents::cut(uint64_t length) {
  const ConditionLock lock(iCondition);
  iLeastLength = std::min(iLeastLength.value_or(length), length);
  auto first = firstEndingAfter(iExtents, length);
  if (first != iExtents.end() && first->begin < length) {
    first->end = length;
    ++first;
  }
  iExtents.erase(first, iExtents.end());
}

std::vector<FileExtent> UnconfirmedExtents::from(uint64_t begin) const {
  const ConditionLock lock(iCondition);
  std::vector<FileExtent> result;
  for (const FileExtent& extent : iExtents) {
    if (extent.end > begin) result.push_back({std::max(extent.begin, begin), extent.end});
  }
  return result;
}

std::optional<uint64_t> UnconfirmedExtents::leastLength() const {
  const ConditionLock lock(iCondition);
  return iLeastLength;
}

void UnconfirmedExtents::forgetLeastLength() {
  const ConditionLock lock(iCondition);
  iLeastLength.reset();
}

void UnconfirmedExtents::beginSending() {
  const ConditionLock lock(iCondition);
  ++iSenders;
}

void UnconfirmedExtents::endSending(NSErrorRef failure) {
  const ConditionLock lock(iCondition);
  --iSenders;
  if (iFailure == nullptr) iFailure = std::move(failure);
  iCondition.broadcast();
}

bool UnconfirmedExtents::isSending() const {
  const ConditionLock lock(iCondition);
  return iSenders > 0;
}

void UnconfirmedExtents::waitUntilSent() {
  const ConditionLock lock(iCondition);
  while (iSenders > 0) iCondition.wait();
}

void UnconfirmedExtents::putOff() {
  const ConditionLock lock(iCondition);
  ++iMakers;
}

void UnconfirmedExtents::endPutOff(NSErrorRef failure) {
  const ConditionLock lock(iCondition);
  --iMakers;
  if (iFailure == nullptr) iFailure = std::move(failure);
}

bool UnconfirmedExtents::isPutOff() const {
  const ConditionLock lock(iCondition);
  return iMakers > 0;
}

bool UnconfirmedExtents::isInDoubt() const {
  const ConditionLock lock(iCondition);
  return iMakers > 0 || iFailure != nullptr;
}

void UnconfirmedExtents::giveBack(FileExtent extent) {
  const ConditionLock lock(iCondition);
  locked_add(extent);
  iGivenBack = std::min(iGivenBack.value_or(extent.begin), extent.begin);
}

std::optional<uint64_t> UnconfirmedExtents::givenBackFrom() const {
  const ConditionLock lock(iCondition);
  return iGivenBack;
}

void UnconfirmedExtents::forgetGivenBack() {
  const ConditionLock lock(iCondition);
  iGivenBack.reset();
}

NSErrorRef UnconfirmedExtents::takeFailure() {
  const ConditionLock lock(iCondition);
  return std::exchange(iFailure, nullptr);
}

bool UnconfirmedExtents::isSettled() const {
  const ConditionLock lock(iCondition);
  return iSenders == 0 && iMakers == 0 && iFailure == nullptr;
}

void UnconfirmedExtents::clearSent() {
  const ConditionLock lock(iCondition);
  iExtents.clear();
  iLeastLength.reset();
}

void UnconfirmedExtents::clear() {
  const ConditionLock lock(iCondition);
  iExtents.clear();
  iLeastLength.reset();
  iGivenBack.reset();
  iFailure.reset();
}

}  // namespace ombra
