// The channel's compression against zlib alone with the same parameters and the same reused state.
#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "benchmarks/support/area.h"
#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/base/thread_create_flag.h"

QUENOR_NAMESPACE_BEGIN

// The door into the channel's private functions.
class ReliableReportChannelHttpsTestPeer {
 public:
  using Channel = ReliableReportChannelHttps;
  static int Compress(Channel* channel, const std::vector<uint8_t>& body,
                      std::vector<uint8_t>* output, uint64_t* length) {
    return channel->Compress(body.data(), body.size(), output->data(), length);
  }
  static bool CompressBody(Channel* channel, const CopyOnWriteBuffer& body,
                           CopyOnWriteBuffer* compressed) {
    return channel->CompressBody(body, compressed);
  }
};

QUENOR_NAMESPACE_END

namespace quenor::bench {
namespace {

using Body = std::vector<uint8_t>;
using Peer = ReliableReportChannelHttpsTestPeer;

constexpr char kBare[] = "zlib alone";
constexpr int kBodies = 20;  // Different ones, in turn.

Body JsonOf(size_t size, std::mt19937* random) {
  static const char* const kNames[] = {"session", "event", "user_id", "duration_ms", "page",
                                       "locale",  "build", "network", "screen",      "result"};
  static const char* const kWords[] = {"start", "home", "settings", "wifi", "en-GB", "success"};
  std::string text = "{\"events\":[";
  while (text.size() < size) {
    text += "{\"ts\":17" + std::to_string((*random)() % 100000000);
    for (int i = 0; i < 4; ++i) {
      text += ",\"" + std::string(kNames[(*random)() % 10]) + "\":";
      text += (*random)() % 2 == 0 ? "\"" + std::string(kWords[(*random)() % 6]) + "\""
                                   : std::to_string((*random)() % 10000);
    }
    text += "},";
  }
  return Body(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(size));
}

Body RandomOf(size_t size, std::mt19937* random) {
  Body body(size);
  for (uint8_t& byte : body) byte = static_cast<uint8_t>((*random)());
  return body;
}

class BareDeflate {
 public:
  BareDeflate() {
    if (deflateInit2(&stream_, Z_BEST_COMPRESSION, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY) != Z_OK)
      std::abort();
  }
  ~BareDeflate() { deflateEnd(&stream_); }
  BareDeflate(const BareDeflate&) = delete;
  BareDeflate& operator=(const BareDeflate&) = delete;

  // The compressed length, or 0 when it is longer than `room`.
  size_t Do(const uint8_t* body, size_t size, uint8_t* output, size_t room) {
    deflateReset(&stream_);
    stream_.next_in = const_cast<uint8_t*>(body);
    stream_.avail_in = static_cast<uInt>(size);
    stream_.next_out = output;
    stream_.avail_out = static_cast<uInt>(room);
    return deflate(&stream_, Z_FINISH) == Z_STREAM_END ? room - stream_.avail_out : 0;
  }

 private:
  z_stream stream_ = {};
};

class CompressionArea {
 public:
  CompressionArea(int argc, char** argv) : area_(argc, argv, "compression", "Compression") {}

  int Run() {
    std::mt19937 random(20240607);
    for (const size_t size : {size_t{1024}, size_t{4096}}) {
      std::vector<Body> json, noise;
      for (int i = 0; i < kBodies; ++i) {
        json.push_back(JsonOf(size, &random));
        noise.push_back(RandomOf(size, &random));
      }
      const std::string name = std::to_string(size / 1024) + " KiB";
      MeasureCompress(name + " of JSON", json);
      MeasureCompress(name + " of random bytes, which do not fit", noise);
      MeasureBody(name + " of JSON, from body to body", json);
    }
    return area_.Finish();
  }

 private:
  // Microseconds of one body; each chunk has them all.
  template <typename Call>
  double Round(const std::vector<Body>& bodies, const Call& call) const {
    return MedianChunkNs(kBodies, area_.Scale(30, 5),
                         [&] {
                           for (const Body& body : bodies) call(body);
                         }) /
           1000;
  }

  void MeasureCompress(const std::string& name, const std::vector<Body>& bodies) {
    Body ours(bodies[0].size()), theirs(bodies[0].size());
    CheckSameBytes(bodies, &ours, &theirs);
    Row row{name, "us"};
    row.contenders = {{"Compress",
                       [&] {
                         return Round(bodies, [&](const Body& body) {
                           uint64_t length = ours.size();
                           Keep(Peer::Compress(channel_.get(), body, &ours, &length));
                         });
                       }},
                      {kBare, [&] {
                         return Round(bodies, [&](const Body& body) {
                           Keep(bare_.Do(body.data(), body.size(), theirs.data(), theirs.size()));
                         });
                       }}};
    row.targets = {{Target::Kind::kAtMost, 1.03, {kBare}}};
    area_.Measure(row);
  }

  // With all that a message needs around it: an array to write to, and a body of the right length.
  void MeasureBody(const std::string& name, const std::vector<Body>& bodies) {
    std::vector<CopyOnWriteBuffer> buffers;
    for (const Body& body : bodies) {
      buffers.emplace_back(body.data(), static_cast<uint32_t>(body.size()));
    }
    const size_t size = bodies[0].size();
    base::ThreadCreateFlag::SetThreadCreateByQuenor(true);
    Row row{name, "us"};
    row.contenders = {
        {"CompressBody",
         [&] {
           size_t i = 0;
           return Round(bodies, [&](const Body&) {
             CopyOnWriteBuffer compressed;
             if (!Peer::CompressBody(channel_.get(), buffers[i++ % kBodies], &compressed))
               std::abort();
             Keep(compressed);
           });
         }},
        {"zlib alone, between two mallocs", [&] {
           return Round(bodies, [&](const Body& body) {
             auto* const output = static_cast<uint8_t*>(std::malloc(size));
             const size_t length = bare_.Do(body.data(), size, output, size);
             void* const compressed = std::malloc(length);
             std::memcpy(compressed, output, length);
             Keep(*static_cast<char*>(compressed));
             std::free(compressed);
             std::free(output);
           });
         }}};
    row.targets = {{Target::Kind::kAtMost, 1.03, {"zlib alone, between two mallocs"}}};
    area_.Measure(row);
    base::ThreadCreateFlag::SetThreadCreateByQuenor(false);
  }

  // What is compared does the same.
  void CheckSameBytes(const std::vector<Body>& bodies, Body* ours, Body* theirs) {
    for (const Body& body : bodies) {
      uint64_t length = ours->size();
      const bool fits =
          Peer::Compress(channel_.get(), body, ours, &length) == Z_OK && length < ours->size();
      const size_t bare = bare_.Do(body.data(), body.size(), theirs->data(), theirs->size());
      if (fits != (bare > 0) ||
          (fits && (length != bare || std::memcmp(ours->data(), theirs->data(), bare) != 0))) {
        std::fprintf(stderr, "bench: Compress and zlib alone differ\n");
        std::exit(1);
      }
    }
  }

  Area area_;
  BareDeflate bare_;
  std::shared_ptr<ReliableReportChannelHttps> channel_ =
      std::make_shared<ReliableReportChannelHttps>("bench", "", 0, false, true);
};

}  // namespace
}  // namespace quenor::bench

int main(int argc, char** argv) { return quenor::bench::CompressionArea(argc, argv).Run(); }
