// Throughput of the TLV codec against a plain memcpy of the same bytes.
//
// Two packages of about 1 MiB each:
//
//  - "stats": what the back end answers to statistics and table queries.
//    Batches of 160 objects, each a record with the object's ID string
//    (tag 13) and its 13 comma-separated counters as one string (tag 9),
//    then table rows of 16 numeric cells (type 3, 4 bytes, tags 1..16).
//    Many small records and cells: the common case.
//  - "large": records of one ~4 KiB string cell each (a big listing), to
//    show how much of the cost is per record and per cell.
//
// The same packages as Protocol Buffers messages (bench/tlv_codec_bench.proto:
// the header fields, and per record its identifier and cells of tag word and
// value bytes) are parsed and serialized for comparison, with and without a
// google::protobuf::Arena.
//
// Every benchmark reports bytes/second over the encoded size of the TLV
// package (also for protobuf, whose encoding is of about the same size; its
// own size is the "pb_size" counter); bench/run_codec_bench.sh prints the
// ratios to memcpy.
#include <benchmark/benchmark.h>
#include <google/protobuf/arena.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tlv/backend_codes.h"
#include "tlv/vem_message_package.h"
#include "tlv_codec_bench.pb.h"

namespace {

constexpr unsigned int kTargetSize = 1u << 20;  // about 1 MiB encoded
constexpr unsigned int kBatchObjects = 160;
constexpr unsigned int kValuesPerObject = 13;
constexpr unsigned int kRowCells = 16;
constexpr unsigned int kRowsPerBatch = 40;
constexpr unsigned int kLargeCellSize = 4096;

// Record identifiers of the table rows: a mix of the listing commands.
constexpr unsigned long long kRowCommands[] = {backend::kObjectListingCmd, backend::kPlainListingCmd,
                                               backend::kSortedListingCmd};

// The encoded size of a package (header plus body).
unsigned int EncodedSize(const CTLVPackage& pkg) { return TLVMsgHeadV3::SIZE + pkg.bodyLength(); }

// Counters of a statistics object: a mix of small gauges and large running
// totals (bytes, I/Os), as the back end reports them.
std::string CounterText(std::mt19937_64& rng) {
  std::string text;
  for (unsigned int v = 0; v < kValuesPerObject; ++v) {
    unsigned long long value;
    switch (v % 4) {
      case 0:
        value = rng() % 100;
        break;  // percentages
      case 1:
        value = rng() % 100000;
        break;  // IOPS, latency in us
      case 2:
        value = rng() % 10000000000ULL;
        break;  // bandwidth in KB
      default:
        value = rng() % 1000000000000000ULL;
        break;  // running totals
    }
    if (v != 0) text += ',';
    text += std::to_string(value);
  }
  return text;
}

// Statistics answers and table rows until the encoded size reaches ~1 MiB.
// The size is kept as records are added (each record adds 10 + length()).
void BuildStatsPackage(CTLVPackage& pkg) {
  std::mt19937_64 rng(20261122);
  unsigned int objectId = 12345;
  unsigned int batch = 0;
  unsigned long size = EncodedSize(pkg);
  while (size < kTargetSize) {
    for (unsigned int i = 0; i < kBatchObjects && size < kTargetSize; ++i) {
      CTLVRecordV3* record = new CTLVRecordV3(CTLVRecordV3::RESPONSE_ID, CTLVRecordV3::DEFAULT_BUCKETS);
      pkg.push_back(record);
      record->append(tlv::NewStringCell(backend::kTagBatchObjectId, std::to_string(objectId++)));
      record->append(tlv::NewStringCell(backend::kTagStatsValues, CounterText(rng)));
      size += CTLVPackage::MIN_RECORD_SIZE + record->length();
    }
    for (unsigned int r = 0; r < kRowsPerBatch && size < kTargetSize; ++r) {
      const unsigned long long id = kRowCommands[(batch + r) % (sizeof kRowCommands / sizeof kRowCommands[0])];
      CTLVRecordV3* record = new CTLVRecordV3(id, CTLVRecordV3::DEFAULT_BUCKETS);
      pkg.push_back(record);
      for (unsigned short tag = 1; tag <= kRowCells; ++tag) {
        record->append(tlv::NewUintCell(tag, CTLVCell::TLV_TYPE_UINT, rng() % 4000000000ULL, 4));
      }
      size += CTLVPackage::MIN_RECORD_SIZE + record->length();
    }
    ++batch;
  }
}

// Records of one ~4 KiB listing string each until ~1 MiB.
void BuildLargePackage(CTLVPackage& pkg) {
  unsigned int n = 0;
  while (EncodedSize(pkg) < kTargetSize) {
    std::string listing;
    while (listing.size() + 32 < kLargeCellSize) {
      listing += "lun" + std::to_string(n * 1000 + listing.size()) + ",pool0,ONLINE;";
    }
    listing.resize(kLargeCellSize - 1, ' ');  // plus the NUL: 4096 bytes
    CTLVRecordV3* record = new CTLVRecordV3(CTLVRecordV3::RESPONSE_ID, CTLVRecordV3::DEFAULT_BUCKETS);
    pkg.push_back(record);
    record->append(tlv::NewStringCell(1, listing));
    ++n;
  }
}

enum Variant { kStats = 0, kLarge = 1 };

// The same content as a protobuf message.
void ToProto(const CTLVPackage& pkg, zerva::bench::BenchPackage* out) {
  const TLVMsgHeadV3& h = pkg.head();
  out->set_hdr_word0(h.hdrWord0);
  out->set_hdr_word1(h.hdrWord1);
  out->set_hdr_short0(h.hdrShort0);
  out->set_hdr_short1(h.hdrShort1);
  out->set_hdr_short2(h.hdrShort2);
  out->set_hdr_short3(h.hdrShort3);
  for (const CTLVRecordV3* record : pkg.records()) {
    zerva::bench::BenchRecord* r = out->add_records();
    r->set_id(record->id());
    for (const CTLVCell* cell : record->cells()) {
      zerva::bench::BenchCell* c = r->add_cells();
      c->set_tag_word(cell->tagWord());
      c->set_value(reinterpret_cast<const char*>(cell->value()), cell->length());
    }
  }
}

// The package of a variant, built once, its encoding and its protobuf form.
struct Fixture {
  CTLVPackage pkg;
  std::vector<unsigned char> wire;
  zerva::bench::BenchPackage proto;
  std::string protoWire;

  explicit Fixture(Variant v) {
    if (v == kStats) {
      BuildStatsPackage(pkg);
    } else {
      BuildLargePackage(pkg);
    }
    wire.resize(EncodedSize(pkg));
    if (pkg.encode(wire.data(), static_cast<unsigned int>(wire.size())) != wire.size()) {
      std::fprintf(stderr, "tlv_codec_bench: encoding the fixture failed\n");
      std::abort();
    }
    ToProto(pkg, &proto);
    if (!proto.SerializeToString(&protoWire)) {
      std::fprintf(stderr, "tlv_codec_bench: serializing the protobuf fixture failed\n");
      std::abort();
    }
  }
};

Fixture& GetFixture(Variant v) {
  static Fixture stats(kStats);
  static Fixture large(kLarge);
  return v == kStats ? stats : large;
}

void SetCommonCounters(benchmark::State& state, const Fixture& f) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(f.wire.size()));
  state.counters["size"] = static_cast<double>(f.wire.size());
  state.counters["records"] = static_cast<double>(f.pkg.size());
  state.counters["pb_size"] = static_cast<double>(f.protoWire.size());
}

// The floor: copying the encoded bytes between two preallocated buffers.
void BM_Memcpy(benchmark::State& state, Variant v) {
  const Fixture& f = GetFixture(v);
  std::vector<unsigned char> src(f.wire);
  std::vector<unsigned char> dst(f.wire.size());
  for (auto _ : state) {
    benchmark::DoNotOptimize(src.data());
    std::memcpy(dst.data(), src.data(), src.size());
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  SetCommonCounters(state, f);
}

// encode(buf, size) into a preallocated buffer.
void BM_Encode(benchmark::State& state, Variant v) {
  Fixture& f = GetFixture(v);
  std::vector<unsigned char> buf(f.wire.size());
  const unsigned int size = static_cast<unsigned int>(buf.size());
  for (auto _ : state) {
    unsigned int n = f.pkg.encode(buf.data(), size);
    benchmark::DoNotOptimize(n);
    benchmark::ClobberMemory();
  }
  SetCommonCounters(state, f);
}

// bodyLength() alone: the walk over every cell that encode makes before it
// writes (to size or check the buffer); the rest of encode is the write pass.
void BM_BodyLength(benchmark::State& state, Variant v) {
  Fixture& f = GetFixture(v);
  for (auto _ : state) {
    unsigned int n = f.pkg.bodyLength();
    benchmark::DoNotOptimize(n);
  }
  SetCommonCounters(state, f);
}

// encode(out): allocation of the result included, then delete[].
void BM_EncodeAlloc(benchmark::State& state, Variant v) {
  Fixture& f = GetFixture(v);
  for (auto _ : state) {
    unsigned char* out = nullptr;
    unsigned int n = f.pkg.encode(out);
    benchmark::DoNotOptimize(out);
    benchmark::DoNotOptimize(n);
    benchmark::ClobberMemory();
    delete[] out;
  }
  SetCommonCounters(state, f);
}

// decode() of the encoded package and the clear() that frees the records
// again. With clearTimed the clear() is timed too: the full cost of a
// received message. Otherwise only the decode is counted, and each decode is
// checked outside the timed part.
void DecodeLoop(benchmark::State& state, Variant v, bool clearTimed) {
  Fixture& f = GetFixture(v);
  std::vector<unsigned char> wire(f.wire);
  CTLVPackage pkg;
  for (auto _ : state) {
    unsigned int n = pkg.decode(wire.data(), static_cast<unsigned int>(wire.size()));
    benchmark::DoNotOptimize(n);
    if (clearTimed) {
      pkg.clear();
      continue;
    }
    state.PauseTiming();
    if (n == CTLVPackage::FAILED || pkg.size() != f.pkg.size()) {
      state.SkipWithError("decode of the fixture failed");
      break;
    }
    pkg.clear();
    state.ResumeTiming();
  }
  SetCommonCounters(state, f);
}

// decode() alone.
void BM_Decode(benchmark::State& state, Variant v) { DecodeLoop(state, v, /*clearTimed=*/false); }

// decode() plus clear().
void BM_DecodeAndClear(benchmark::State& state, Variant v) { DecodeLoop(state, v, /*clearTimed=*/true); }

// Protocol Buffers: SerializeToArray into a preallocated buffer.
void BM_ProtoSerialize(benchmark::State& state, Variant v) {
  Fixture& f = GetFixture(v);
  std::vector<unsigned char> buf(f.protoWire.size());
  const int size = static_cast<int>(buf.size());
  for (auto _ : state) {
    bool ok = f.proto.SerializeToArray(buf.data(), size);
    benchmark::DoNotOptimize(ok);
    benchmark::ClobberMemory();
  }
  SetCommonCounters(state, f);
}

// Protocol Buffers: ParseFromArray into a new message, on the heap, or with
// arena in a google::protobuf::Arena of its own that holds all its records
// and cells and frees them at once. With freeTimed the message's
// destruction is timed too (as BM_DecodeAndClear); otherwise it is not (as
// BM_Decode).
void ProtoParseLoop(benchmark::State& state, Variant v, bool arena, bool freeTimed) {
  Fixture& f = GetFixture(v);
  const int size = static_cast<int>(f.protoWire.size());
  for (auto _ : state) {
    std::unique_ptr<google::protobuf::Arena> heap(arena ? new google::protobuf::Arena() : nullptr);
    auto* msg = google::protobuf::Arena::CreateMessage<zerva::bench::BenchPackage>(heap.get());
    std::unique_ptr<zerva::bench::BenchPackage> owned(arena ? nullptr : msg);
    bool ok = msg->ParseFromArray(f.protoWire.data(), size);
    benchmark::DoNotOptimize(ok);
    if (!freeTimed) state.PauseTiming();
    const bool parsed = ok && msg->records_size() == static_cast<int>(f.pkg.size());
    owned.reset();
    heap.reset();
    if (!parsed) {
      state.SkipWithError("protobuf parse of the fixture failed");
      break;
    }
    if (!freeTimed) state.ResumeTiming();
  }
  SetCommonCounters(state, f);
}

void BM_ProtoParse(benchmark::State& state, Variant v) { ProtoParseLoop(state, v, false, false); }
void BM_ProtoParseAndFree(benchmark::State& state, Variant v) { ProtoParseLoop(state, v, false, true); }
void BM_ProtoArenaParse(benchmark::State& state, Variant v) { ProtoParseLoop(state, v, true, false); }
void BM_ProtoArenaParseAndFree(benchmark::State& state, Variant v) { ProtoParseLoop(state, v, true, true); }

}  // namespace

BENCHMARK_CAPTURE(BM_Memcpy, stats, kStats)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Memcpy, large, kLarge)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Encode, stats, kStats)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Encode, large, kLarge)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_BodyLength, stats, kStats)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_BodyLength, large, kLarge)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_EncodeAlloc, stats, kStats)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_EncodeAlloc, large, kLarge)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Decode, stats, kStats)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Decode, large, kLarge)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_DecodeAndClear, stats, kStats)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_DecodeAndClear, large, kLarge)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ProtoSerialize, stats, kStats)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ProtoSerialize, large, kLarge)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ProtoParse, stats, kStats)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ProtoParse, large, kLarge)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ProtoParseAndFree, stats, kStats)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ProtoParseAndFree, large, kLarge)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ProtoArenaParse, stats, kStats)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ProtoArenaParse, large, kLarge)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ProtoArenaParseAndFree, stats, kStats)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ProtoArenaParseAndFree, large, kLarge)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
