#include "sim/workload.h"

#include <algorithm>
#include <cmath>

#include "sim/topology.h"

namespace zerva_sim {

namespace {

const long double kPi = 3.141592653589793238462643383279502884L;
const uint64_t kPeriodSeconds = kSamplePeriodMs / 1000;

// A well-mixed 64-bit hash step (splitmix64's finaliser).
uint64_t Mix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ULL;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
  return x ^ (x >> 31);
}

uint64_t Hash(uint64_t a, uint64_t b, uint64_t c, uint64_t d) { return Mix(Mix(Mix(Mix(a) ^ b) ^ c) ^ d); }

// A number in [0, 1) from a hash.
double Unit(uint64_t h) { return static_cast<double>(h >> 11) / 9007199254740992.0; }

// A number in [lo, hi) from a hash.
double Between(uint64_t h, double lo, double hi) { return lo + (hi - lo) * Unit(h); }

uint32_t Clamp32(uint64_t v) { return v > 0xFFFFFFFFULL ? 0xFFFFFFFFu : static_cast<uint32_t>(v); }

uint32_t Percent(double v) { return static_cast<uint32_t>(std::min(100.0, std::max(0.0, v))); }

bool IsPort(uint32_t t) { return t == kObjPortEth || t == kObjPortFc || t == kObjPortFcoe || t == kObjPortBond; }

bool IsService(uint32_t t) {
  return t == kObjNfsV3 || t == kObjNfsV4 || t == kObjNfsV41 || t == kObjSmbV1 || t == kObjSmbV2;
}

const uint32_t kServiceTypes[] = {kObjNfsV3, kObjNfsV4, kObjNfsV41, kObjSmbV1, kObjSmbV2};

// The weighted mean of up to three latencies by their operation counts
// (truncated), or 0 when there were no operations: no operation, no
// response time.
uint32_t WeightedLatency(uint64_t n1, uint32_t l1, uint64_t n2, uint32_t l2, uint64_t n3 = 0, uint32_t l3 = 0) {
  const uint64_t n = n1 + n2 + n3;
  if (n == 0) return 0;
  return Clamp32((n1 * l1 + n2 * l2 + n3 * l3) / n);
}

}  // namespace

struct WorkloadModel::Params {
  double base[3] = {0, 0, 0};       // mean operations per second of each stream
  double amp1 = 0, amp2 = 0;        // relative amplitudes of the two waves
  double period1 = 1, period2 = 1;  // their periods in seconds
  double phase1[3] = {0, 0, 0}, phase2[3] = {0, 0, 0};
  uint32_t sizeKB[2] = {4, 4};
  double latencyUs[3] = {0, 0, 0};
  double hitPct[2] = {0, 0};
  double capacity = 1;  // operations per second at 100 % utilisation
  uint64_t salt = 0;    // per-object hash for per-period jitter
};

bool WorkloadModel::knowsType(uint32_t t) {
  return t == kObjLun || t == kObjFileSystem || t == kObjController || IsPort(t) || IsService(t);
}

bool WorkloadModel::isFileType(uint32_t t) { return t == kObjFileSystem || IsService(t); }

WorkloadModel::Params WorkloadModel::params(uint32_t objType, uint64_t key) const {
  Params p;
  p.salt = Hash(seed_, objType, key, 0x5EED);
  auto h = [&](uint64_t n) { return Hash(p.salt, n, 0, 0); };
  double readLo, readHi, writeFrac;
  if (objType == kObjLun) {
    readLo = 20, readHi = 1500, writeFrac = Between(h(1), 0.2, 1.0);
  } else if (IsPort(objType)) {
    readLo = 500, readHi = 15000, writeFrac = Between(h(1), 0.3, 0.8);
  } else if (objType == kObjController) {
    readLo = 5000, readHi = 60000, writeFrac = Between(h(1), 0.3, 0.7);
  } else if (objType == kObjFileSystem) {
    readLo = 10, readHi = 2000, writeFrac = Between(h(1), 0.2, 0.9);
  } else {
    readLo = 100, readHi = 10000, writeFrac = Between(h(1), 0.2, 0.8);
  }
  p.base[0] = Between(h(2), readLo, readHi);
  p.base[1] = p.base[0] * writeFrac;
  p.base[2] = isFileType(objType) ? p.base[0] * Between(h(3), 0.1, 0.5) : 0.0;
  p.amp1 = Between(h(4), 0.15, 0.45);
  p.amp2 = Between(h(5), 0.05, 0.30);
  p.period1 = Between(h(6), 1800, 7200);
  p.period2 = Between(h(7), 120, 900);
  for (int s = 0; s < 3; ++s) {
    p.phase1[s] = Between(h(10 + s), 0, 2 * 3.141592653589793);
    p.phase2[s] = Between(h(20 + s), 0, 2 * 3.141592653589793);
  }
  static const uint32_t kSizes[] = {4, 8, 16, 32, 64, 128};
  p.sizeKB[0] = kSizes[h(30) % 6];
  p.sizeKB[1] = kSizes[h(31) % 6];
  p.latencyUs[0] = Between(h(32), 150, 2000);
  p.latencyUs[1] = Between(h(33), 250, 3000);
  p.latencyUs[2] = Between(h(34), 50, 600);
  p.hitPct[0] = Between(h(35), 20, 95);
  p.hitPct[1] = Between(h(36), 60, 99);
  p.capacity = (p.base[0] + p.base[1] + p.base[2]) * Between(h(37), 2.0, 3.0);
  return p;
}

uint64_t WorkloadModel::opsUpTo(const Params& p, int stream, uint64_t k) {
  if (p.base[stream] <= 0) return 0;
  // The integral of base * (1 + a1 sin(2 pi t / P1 + f1) + a2 sin(2 pi t / P2 + f2))
  // from 0 to T. With a1 + a2 < 1 the rate is positive, so the integral and
  // its floor never decrease.
  // The sum is kept in long double (it grows with t); the waves' angles
  // are taken from t modulo their periods (fmodl is exact), so they stay
  // below 4 pi and the double cosine is exact enough and fast (long double
  // cosl spends most of its time reducing its argument).
  const long double t = static_cast<long double>(k) * kPeriodSeconds;
  const long double w1 = 2 * kPi / p.period1, w2 = 2 * kPi / p.period2;
  const double a1 = static_cast<double>(w1 * fmodl(t, p.period1));
  const double a2 = static_cast<double>(w2 * fmodl(t, p.period2));
  const long double wave1 = p.amp1 / w1 * (std::cos(p.phase1[stream]) - std::cos(a1 + p.phase1[stream]));
  const long double wave2 = p.amp2 / w2 * (std::cos(p.phase2[stream]) - std::cos(a2 + p.phase2[stream]));
  const long double total = p.base[stream] * (t + wave1 + wave2);
  return total <= 0 ? 0 : static_cast<uint64_t>(floorl(total));
}

Counters WorkloadModel::counters(uint32_t objType, uint64_t key, uint64_t tMs) const {
  const Params p = params(objType, key);
  const uint64_t k = tMs / kSamplePeriodMs;
  Counters c;
  c.readOps = opsUpTo(p, 0, k);
  c.writeOps = opsUpTo(p, 1, k);
  c.otherOps = opsUpTo(p, 2, k);
  c.readKB = c.readOps * p.sizeKB[0];
  c.writeKB = c.writeOps * p.sizeKB[1];
  return c;
}

Sample WorkloadModel::sample(uint32_t objType, uint64_t key, uint64_t tMs) const {
  Sample s;
  const uint64_t k = tMs / kSamplePeriodMs;
  if (k == 0) return s;
  const Params p = params(objType, key);
  uint32_t* rates[3] = {&s.readOps, &s.writeOps, &s.otherOps};
  uint32_t* latencies[3] = {&s.readLatencyUs, &s.writeLatencyUs, &s.otherLatencyUs};
  for (int i = 0; i < 3; ++i) {
    *rates[i] = Clamp32((opsUpTo(p, i, k) - opsUpTo(p, i, k - 1)) / kPeriodSeconds);
    // A stream without operations in the period has no response time.
    if (*rates[i] == 0) continue;
    // Latency grows with load relative to the object's mean, plus jitter.
    const double load = p.base[i] > 0 ? *rates[i] / p.base[i] : 0.0;
    const double jitter = Unit(Hash(p.salt, k, i, 0x1A7));
    *latencies[i] = static_cast<uint32_t>(p.latencyUs[i] * (0.6 + 0.4 * load) * (0.9 + 0.2 * jitter));
  }
  s.readSizeKB = p.sizeKB[0];
  s.writeSizeKB = p.sizeKB[1];
  for (int i = 0; i < 2; ++i) {
    // Likewise no hit ratio without I/O of that kind.
    if (*rates[i] == 0) continue;
    const double jitter = Unit(Hash(p.salt, k, i, 0x417));
    const uint32_t hit = Percent(p.hitPct[i] + 10 * jitter - 5);
    (i == 0 ? s.readHitPct : s.writeHitPct) = hit;
  }
  return s;
}

std::vector<uint32_t> WorkloadModel::itemsOf(uint32_t objType) {
  std::vector<uint32_t> items;
  if (isFileType(objType)) {
    items = {23, 26, 182, 232, 233, 439, 523, 524, 525};
  } else if (knowsType(objType)) {
    items = {5, 21, 22, 23, 25, 26, 28, 78, 303, 307, 370, 371, 384, 385};
    if (objType == kObjController) {
      items.insert(items.end(), {68, 69, 110, 120, 475, 476});
      std::sort(items.begin(), items.end());
    }
  }
  return items;
}

uint32_t WorkloadModel::controllerValue(uint64_t key, uint32_t item, uint64_t tMs, const Sample& s) const {
  const Params p = params(kObjController, key);
  const uint64_t k = tMs / kSamplePeriodMs;
  const double jitter = Unit(Hash(p.salt, k, item, 0xC7));
  const double load = (static_cast<double>(s.readOps) + s.writeOps) / p.capacity;
  switch (item) {
    case 68:
      return Percent(5 + 90 * load + 4 * jitter);  // CPU usage
    case 69:
      return Percent(40 + 35 * Unit(Hash(p.salt, 69, 0, 0)) + 3 * jitter);  // memory usage
    case 110:
      return Percent(30 + 60 * Unit(Hash(p.salt, 110, 0, 0)) + 5 * jitter);  // cache usage
    case 120: {
      // Dirty pages are part of the used cache: never above item 110.
      const uint32_t used = controllerValue(key, 110, tMs, s);
      return std::min(used, Percent(5 + 60 * s.writeOps / p.capacity + 3 * jitter));
    }
    default:
      break;
  }
  // 475, 476: the controller's file services together.
  uint64_t ops = 0, weighted = 0;
  for (uint32_t type : kServiceTypes) {
    const Sample f = sample(type, key, tMs);
    const uint64_t n = static_cast<uint64_t>(f.readOps) + f.writeOps + f.otherOps;
    ops += n;
    weighted += static_cast<uint64_t>(WeightedLatency(f.readOps, f.readLatencyUs, f.writeOps, f.writeLatencyUs,
                                                      f.otherOps, f.otherLatencyUs)) *
                n;
  }
  if (item == 475) return Clamp32(ops);
  return ops == 0 ? 0 : Clamp32(weighted / ops);
}

bool WorkloadModel::value(uint32_t objType, uint64_t key, uint32_t item, uint64_t tMs, uint32_t* out) const {
  if (!knowsType(objType)) return false;
  const Sample s = sample(objType, key, tMs);
  const uint64_t r = s.readOps, w = s.writeOps, o = s.otherOps;
  if (isFileType(objType)) {
    switch (item) {
      case 182:
        *out = Clamp32(r + w + o);
        return true;
      case 523:
        *out = s.readOps;
        return true;
      case 524:
        *out = s.writeOps;
        return true;
      case 525:
        *out = s.otherOps;
        return true;
      case 23:
        *out = Clamp32(r * s.readSizeKB);
        return true;
      case 26:
        *out = Clamp32(w * s.writeSizeKB);
        return true;
      case 232:
        *out = s.readLatencyUs;
        return true;
      case 233:
        *out = s.writeLatencyUs;
        return true;
      case 439:
        *out = WeightedLatency(r, s.readLatencyUs, w, s.writeLatencyUs, o, s.otherLatencyUs);
        return true;
      default:
        return false;
    }
  }
  switch (item) {
    case 22:
      *out = Clamp32(r + w);
      return true;
    case 25:
      *out = s.readOps;
      return true;
    case 28:
      *out = s.writeOps;
      return true;
    case 23:
      *out = Clamp32(r * s.readSizeKB);
      return true;
    case 26:
      *out = Clamp32(w * s.writeSizeKB);
      return true;
    case 21:
      *out = Clamp32(r * s.readSizeKB + w * s.writeSizeKB);
      return true;
    case 384:
      *out = s.readHitPct;
      return true;
    case 385:
      *out = s.writeHitPct;
      return true;
    case 303:
      *out = r + w == 0 ? 0 : Clamp32((r * s.readHitPct + w * s.writeHitPct) / (r + w));
      return true;
    case 370:
      *out = s.readLatencyUs;
      return true;
    case 371:
      *out = s.writeLatencyUs;
      return true;
    case 78:
      *out = WeightedLatency(r, s.readLatencyUs, w, s.writeLatencyUs);
      return true;
    case 307:
      *out = Clamp32((r * s.readLatencyUs + w * s.writeLatencyUs + 500000) / 1000000);
      return true;
    case 5: {
      const Params p = params(objType, key);
      *out = Percent(100.0 * static_cast<double>(r + w) / p.capacity);
      return true;
    }
    default:
      break;
  }
  if (objType == kObjController &&
      (item == 68 || item == 69 || item == 110 || item == 120 || item == 475 || item == 476)) {
    *out = controllerValue(key, item, tMs, s);
    return true;
  }
  return false;
}

}  // namespace zerva_sim
