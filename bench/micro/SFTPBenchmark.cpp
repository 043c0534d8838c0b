// What comes from an SFTP server: packets out of a stream of bytes, and the names in them.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <algorithm>

#include "bench/micro/Require.h"
#include "remote/sftp/SFTPAssembler.h"
#include "remote/sftp/SFTPProtocol.h"
#include "remote/sftp/SFTPReplies.h"

namespace ombra {
namespace {

constexpr uint32_t kNames = 100;  // as many as OpenSSH puts into one reply

SFTPReply namesReply() {
  SFTPPacketWriter writer(kSFTPName);
  writer.u32(7).u32(kNames);
  for (uint32_t i = 0; i < kNames; ++i) {
    const std::string name = fmt::format("Photograph {:04}.jpeg", i);
    writer.string(name).string(
        fmt::format("-rw-r--r--    1 anna     users     {:9} Nov 21 13:00 {}", i, name));
    SFTPAttributes attributes;
    attributes.size = i;
    attributes.owner = SFTPAttributes::Owner{1000, 100};
    attributes.permissions = 0100644;
    attributes.times = SFTPAttributes::Times{1700000000, 1700000000};
    writeSFTPAttributes(writer, attributes);
  }
  const auto bytes = writer.finish().subspan(4);  // without the length
  SFTPReply reply;
  reply.type = kSFTPName;
  reply.id = 7;
  reply.packet.data = std::make_unique<std::byte[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), reply.packet.data.get());
  reply.packet.capacity = reply.packet.size = bytes.size();
  reply.bodyOffset = 5;
  return reply;
}

void parseSFTPDirectory(benchmark::State& state) {
  const SFTPReply reply = namesReply();
  for ([[maybe_unused]] auto _ : state) {
    const auto names = parseSFTPNames(reply);
    require(names && names->size() == kNames && names->back().attributes.size == kNames - 1,
            "names are missing");
    benchmark::DoNotOptimize(names->data());
  }
  state.SetItemsProcessed(state.iterations() * kNames);
}
BENCHMARK(parseSFTPDirectory);

// The packets of a download, in pieces as they come out of the cipher.
void assembleSFTPPackets(benchmark::State& state) {
  constexpr size_t kLength = 32768, kPackets = 32;
  const auto piece = static_cast<size_t>(state.range(0));
  std::vector<std::byte> stream;
  const std::string data(kLength, 'x');
  for (uint32_t i = 0; i < kPackets; ++i) {
    SFTPPacketWriter writer(kSFTPData);
    writer.u32(i).string(data);
    const auto bytes = writer.finish();
    stream.insert(stream.end(), bytes.begin(), bytes.end());
  }
  SFTPBufferPool pool;
  size_t packets = 0;
  SFTPAssembler assembler(pool, 256 * 1024, [&](SFTPBuffer packet) {
    ++packets;
    pool.giveBack(std::move(packet));
    return true;
  });
  const std::span<const std::byte> all(stream);
  for ([[maybe_unused]] auto _ : state) {
    packets = 0;
    for (size_t at = 0; at < all.size(); at += piece)
      require(assembler.append(all.subspan(at, std::min(piece, all.size() - at))), "a packet is refused");
    require(packets == kPackets, "packets are missing");
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(all.size()));
}
BENCHMARK(assembleSFTPPackets)->Arg(1400)->Arg(32768);

}  // namespace
}  // namespace ombra
