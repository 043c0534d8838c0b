// Where a path leads: a bucket, and a key in it.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

// "/bucket/a/b": the key "a/b" of the bucket. "/" is the list of buckets, "/bucket" what is at the top of
// one. A folder is a common beginning of keys that ends with a slash, whether or not an empty object of that
// name (its marker) keeps it there.
struct S3Path {
  std::string bucket;
  std::string key;  // without a slash at either end

  // Any absolute path; ".." goes up by name, since nothing here is a link.
  static S3Path parse(std::string_view path);

  bool isRoot() const { return bucket.empty(); }
  bool isBucket() const { return !bucket.empty() && key.empty(); }
  bool isItem() const { return !key.empty(); }
  // What the keys of everything below begin with, and the key of the marker; empty for a bucket.
  std::string prefix() const { return key.empty() ? std::string() : key + "/"; }
  // The folder that it lies in; the root's is the root.
  S3Path parent() const;
  // "/bucket/key", in normal form.
  std::string text() const;
  bool operator==(const S3Path&) const = default;
};

}  // namespace ombra
