// Data of a streamed upload that was taken before there was a session to send it.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace ombra {

// Takes data from a handler, up to a bound, and gives it out again in order, followed by what the handler
// still has. Of one thread.
class StreamSpool {
 public:
  using Handler = std::function<size_t(std::byte* buffer, size_t capacity)>;
  static constexpr size_t kBound = 8 * 1024 * 1024;  // bytes
  static constexpr size_t kPiece = 256 * 1024;

  explicit StreamSpool(Handler handler) : iHandler(std::move(handler)) {}

  // Whether `fill` would ask the handler: there is room and the handler has not ended.
  bool wantsMore() const { return !iEnded && iBytes.size() - iGiven < kBound; }
  // Asks the handler once, which may block.
  void fill();
  // The next bytes for the session, 0 for the end. Asks the handler once the spool is empty.
  size_t next(std::byte* buffer, size_t capacity);
  // False once anything was given out: then a stream cannot be begun again.
  bool isUntouched() const { return !iTouched; }

 private:
  const Handler iHandler;
  std::vector<std::byte> iBytes;
  size_t iGiven = 0;
  bool iEnded = false;
  bool iTouched = false;
};

}  // namespace ombra
