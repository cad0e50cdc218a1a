#include "host/agent/object_server.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

#include "snmpcommon/snmp_configuration.h"
#include "snmpcommon/snmp_read_failures.h"
#include "vempub/vem_debug_kit.h"

namespace zerva_agent {

namespace {

// What a non-zero handler result means, for logs.
std::string ResultText(int code) {
  const char* transport = SnmpTransportErrorText(code);
  std::string text = "result " + std::to_string(code);
  if (transport != nullptr && transport[0] != '\0') text += " (" + std::string(transport) + ")";
  return text;
}

// Calls one handler operation, turning exceptions into a result of -1.
template <typename Fn>
int CallHandler(Fn fn, std::string* why) {
  try {
    const int rc = fn();
    if (rc != 0) *why = ResultText(rc);
    return rc;
  } catch (const std::exception& e) {
    *why = std::string("exception: ") + e.what();
  } catch (...) {
    *why = "unknown exception";
  }
  return -1;
}

// What the failure count says about a read the handler answered: n calls
// failed (the last with code `last`) and m value lists did not parse.
std::string ReadFailureText(uint64_t calls, int last, uint64_t texts) {
  std::string text = "the handler answered, but";
  if (calls != 0) {
    text += " " + std::to_string(calls) + (calls == 1 ? " back-end call" : " back-end calls") + " failed (" +
            (calls == 1 ? "" : "the last ") + "with " + ResultText(last) + ")";
  }
  if (texts != 0) {
    text += std::string(calls != 0 ? " and" : "") + " " + std::to_string(texts) +
            (texts == 1 ? " value list" : " value lists") + " from the back end did not parse";
  }
  return text + " during the read";
}

Lookup Error(const std::string& why) {
  Lookup out;
  out.status = Lookup::kError;
  out.error = why;
  return out;
}

Lookup WithStatus(Lookup::Status status) {
  Lookup out;
  out.status = status;
  return out;
}

}  // namespace

// ---------------------------------------------------------------- ObjectServer

std::function<Clock::time_point()> RequestDeadline(const ServerSettings& settings) {
  struct Shared {
    uint64_t request = 0;
    Clock::time_point at;
  };
  auto shared = std::make_shared<Shared>();
  const std::chrono::milliseconds wait = settings.waitTime;
  const std::function<uint64_t()> request = settings.request;
  return [shared, wait, request] {
    const uint64_t current = request();
    if (current != shared->request || shared->request == 0) {
      shared->request = current;
      shared->at = Clock::now() + wait;
    }
    return shared->at;
  };
}

ObjectServer::ObjectServer(const MibObject& object, CSnmpHandler* handler, const ServerSettings& settings)
    : object_(object),
      handler_(handler),
      settings_(settings),
      prefix_(std::vector<uint32_t>(object.oid.begin(), object.oid.end())),
      ownWorker_(settings.worker == nullptr ? new BackendWorker(BackendWorker::kInline) : nullptr),
      worker_(settings.worker != nullptr ? settings.worker : ownWorker_.get()) {}

Clock::time_point ObjectServer::deadline() const {
  return settings_.deadline ? settings_.deadline() : Clock::now() + settings_.waitTime;
}

void ObjectServer::reportFailure(const std::string& what) {
  std::lock_guard<std::mutex> lock(logMu_);
  if (failing_ == what) return;
  failing_ = what;
  VEMLog(VEM_KIT_AGENT, VEM_LOG_ERROR, "ObjectServer", __LINE__, "%s (%s) failed: %s; answering genErr",
         object_.name.c_str(), object_.prefix.c_str(), what.c_str());
}

void ObjectServer::reportSuccess() {
  std::lock_guard<std::mutex> lock(logMu_);
  if (failing_.empty()) return;
  failing_.clear();
  VEMLog(VEM_KIT_AGENT, VEM_LOG_WARN, "ObjectServer", __LINE__, "%s (%s) answers again", object_.name.c_str(),
         object_.prefix.c_str());
}

void ObjectServer::reportLate(const std::string& what) {
  std::lock_guard<std::mutex> lock(logMu_);
  const bool first = !late_;
  late_ = true;
  VEMLog(VEM_KIT_AGENT, first ? VEM_LOG_WARN : VEM_LOG_DEBUG, "ObjectServer", __LINE__, "%s (%s): %s",
         object_.name.c_str(), object_.prefix.c_str(), what.c_str());
}

void ObjectServer::reportInTime() {
  std::lock_guard<std::mutex> lock(logMu_);
  if (!late_) return;
  late_ = false;
  VEMLog(VEM_KIT_AGENT, VEM_LOG_WARN, "ObjectServer", __LINE__, "%s (%s): the back end answers in time again",
         object_.name.c_str(), object_.prefix.c_str());
}

void ObjectServer::warnOnce(const std::string& text) {
  std::lock_guard<std::mutex> lock(logMu_);
  if (!warned_.insert(text).second) return;
  VEMLog(VEM_KIT_AGENT, VEM_LOG_WARN, "ObjectServer", __LINE__, "%s (%s): %s", object_.name.c_str(),
         object_.prefix.c_str(), text.c_str());
}

namespace {

std::string Milliseconds(std::chrono::milliseconds ms) { return std::to_string(ms.count()) + " ms"; }

// A duration for logs: "2.4 s".
std::string Age(Clock::duration age) {
  const long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(age).count();
  char text[32];
  snprintf(text, sizeof text, "%lld.%lld s", ms / 1000, (ms % 1000) / 100);
  return text;
}

}  // namespace

// ---------------------------------------------------------------- ScalarServer

ScalarServer::ScalarServer(const MibObject& object, CSnmpHandler* handler, const ServerSettings& settings)
    : ObjectServer(object, handler, settings) {}

Agentpp::Oidx ScalarServer::instance() const {
  Agentpp::Oidx oid = prefix_;
  oid += 0u;
  return oid;
}

bool ScalarServer::writable() const {
  const MibColumn* c = object_.columns.empty() ? nullptr : &object_.columns.front();
  if (c == nullptr || !c->writable) return false;
  // The request cell is an unsigned 32-bit number.
  return SnmpTypeOf(c->syntax) != kAsnOctetString && c->syntax != MibSyntax::Counter64;
}

Lookup ScalarServer::readNow() {
  const MibColumn* col = object_.columns.empty() ? nullptr : &object_.columns.front();
  if (col == nullptr) return Error("the MIB description gives the scalar no syntax");
  CVEM_SnmpContext ctx(SNMP_OP_GET, Agentpp::Oidx{0}, 1);
  CTLVPackage req;
  CTLVPackage rsp;
  std::string why;
  if (CallHandler([&] { return handler_->OnQueryLeaf(ctx, req, rsp); }, &why) != 0) {
    reportFailure("OnQueryLeaf: " + why);
    return Error(why);
  }
  if (rsp.empty() || rsp[0]->cellCount() == 0) {
    reportFailure("OnQueryLeaf answered no value");
    return Error("no value");
  }
  Lookup out;
  if (!CellToValue(*rsp[0]->cells().front(), col->syntax, &out.value, &why)) {
    reportFailure("OnQueryLeaf answered a bad value: " + why);
    return Error(why);
  }
  reportSuccess();
  out.status = Lookup::kFound;
  out.name = instance();
  return out;
}

Lookup ScalarServer::read() {
  const Clock::time_point until = deadline();
  auto lastUsable = [this] { return last_.status == Lookup::kFound && settings_.now() - lastAt_ <= settings_.maxAge; };
  std::shared_ptr<Read> read;
  bool start = false;
  {
    std::lock_guard<std::mutex> lock(mu_);
    // A read that made a lookup give up already is not waited for again
    // while the last value can answer.
    if (pending_ && pending_->late && lastUsable()) return last_;
    if (!pending_) {
      pending_ = std::make_shared<Read>();
      start = true;
    }
    read = pending_;
  }
  if (start) {
    read->ticket = worker().submit([this, read] {
      read->result = readNow();
      std::lock_guard<std::mutex> lock(mu_);
      if (read->result.status == Lookup::kFound) {
        last_ = read->result;
        lastAt_ = settings_.now();
      }
      if (pending_ == read) pending_.reset();
    });
  }
  if (worker().waitUntil(read->ticket, until)) {
    reportInTime();
    return read->result;
  }
  std::lock_guard<std::mutex> lock(mu_);
  const bool first = !read->late;  // logged once per late read
  read->late = true;
  if (lastUsable()) {
    if (first) {
      reportLate("the back end has not answered within " + Milliseconds(settings_.waitTime) +
                 "; answering the value read " + Age(settings_.now() - lastAt_) + " ago");
    }
    return last_;
  }
  const std::string why = "the back end has not answered within " + Milliseconds(settings_.waitTime) +
                          ", and no earlier value is younger than " + Milliseconds(settings_.maxAge);
  if (first) reportLate(why);
  return Error(why);
}

Lookup ScalarServer::get(const Agentpp::Oidx& oid) {
  if (oid != instance()) return WithStatus(Lookup::kNoSuchInstance);
  return read();
}

Lookup ScalarServer::getNext(const Agentpp::Oidx& oid, unsigned int) {
  if (!(oid < instance())) return WithStatus(Lookup::kEndOfObject);
  return read();
}

SetError ScalarServer::checkSet(const Agentpp::Oidx& oid, unsigned char type, uint64_t number, bool negative) const {
  if (!writable()) return kSetNotWritable;
  if (oid != instance()) return kSetNoCreation;
  const MibColumn& col = object_.columns.front();
  if (type != SnmpTypeOf(col.syntax)) return kSetWrongType;
  if (negative || number > 0xFFFFFFFFULL) return kSetWrongValue;
  return kSetOk;
}

int ScalarServer::readCurrent(uint32_t* value, std::string* why) {
  Lookup now = read();
  if (now.status != Lookup::kFound) {
    *why = now.error;
    return -1;
  }
  *value = static_cast<uint32_t>(now.value.number);
  return 0;
}

int ScalarServer::write(uint32_t value, std::string* why) {
  struct Outcome {
    int rc = -1;
    std::string why;
  };
  auto outcome = std::make_shared<Outcome>();
  // Before the reads queued: a write waits for the call under way only.
  BackendWorker::Ticket job = worker().submit(
      [this, value, outcome] {
        CVEM_SnmpContext ctx(SNMP_OP_SET, Agentpp::Oidx{0}, 1);
        CTLVPackage req;
        std::unique_ptr<CTLVRecordV3> record(
            new CTLVRecordV3(CTLVRecordV3::RESPONSE_ID, CTLVRecordV3::DEFAULT_BUCKETS));
        record->append(tlv::NewUintCell(0, CTLVCell::TLV_TYPE_UINT, value, 4));
        req.push_back(record.release());
        CTLVPackage rsp;
        outcome->rc = CallHandler([&] { return handler_->OnSetLeaf(ctx, req, rsp); }, &outcome->why);
      },
      true);
  if (!worker().waitUntil(job, deadline())) {
    if (worker().cancel(job)) {
      *why = "the back end is busy: the write did not start within " + Milliseconds(settings_.waitTime);
      reportLate(*why);
      return -1;
    }
    worker().wait(job);  // begun: its outcome is the answer
  }
  *why = outcome->why;
  if (outcome->rc != 0) {
    reportFailure("OnSetLeaf(" + std::to_string(value) + "): " + *why);
  } else {
    reportSuccess();
  }
  return outcome->rc;
}

// ---------------------------------------------------------------- TableServer

TableServer::TableServer(const MibObject& object, CSnmpHandler* handler, const ServerSettings& settings, bool batch)
    : ObjectServer(object, handler, settings),
      batch_(batch && object.indexEncoding == MibIndexEncoding::Integer),
      current_(std::make_shared<Generation>()),
      snapshot_(settings.snapshotTime, settings.walkTime, settings.now, settings.request) {}

bool TableServer::batchMode() const {
  std::lock_guard<std::mutex> lock(mu_);
  return batch_;
}

void TableServer::invalidate() {
  // What the table answers has changed: no earlier read may answer.
  std::lock_guard<std::mutex> lock(mu_);
  current_ = std::make_shared<Generation>();
  previous_.reset();
  pending_.reset();
  snapshot_.drop();
}

void TableServer::prefetch() {
  std::unique_lock<std::mutex> lock(mu_);
  if (!worker().threaded() || pending_ || !snapshot_.wouldReadAtStart()) return;
  if (snapshot_.held()) roll();
  if (current_->known.coversFirst()) return;
  start(lock, readAfter(true, Agentpp::Oidx(), 0));
}

TableServer::Query TableServer::readAfter(bool fromStart, const Agentpp::Oidx& after, unsigned int rowsHint) const {
  Query q;
  q.whole = !batch_;
  q.op = batch_ || !fromStart ? SNMP_OP_GETNEXT : SNMP_OP_WALK;
  q.fromStart = fromStart;
  q.after = fromStart ? Agentpp::Oidx() : after;
  q.rows = batch_ ? std::max(rowsHint, std::max(settings_.batchRows, 1u)) : 0;
  return q;
}

void TableServer::roll() {
  if (current_->read) previous_ = current_;
  current_ = std::make_shared<Generation>();
  pending_.reset();  // its rows would go to the generation just replaced
  snapshot_.drop();
}

void TableServer::begin(SnapshotLifetime::Use use) {
  deadline_ = deadline();
  if (snapshot_.begin(use)) roll();
}

void TableServer::fail(const std::string& why) {
  current_ = std::make_shared<Generation>();
  snapshot_.noteFailure();
  failure_ = why;
}

void TableServer::Row::set(size_t i, const SnmpValue& value) {
  Cell& cell = cells_[i];
  if (cell.present) return;
  cell.present = true;
  cell.type = value.type;
  cell.number = value.number;
  if (!value.bytes.empty()) {
    texts_.push_back(value.bytes);
    cell.text = static_cast<uint32_t>(texts_.size());
  }
}

bool TableServer::Row::get(size_t i, SnmpValue* value) const {
  if (i >= cells_.size() || !cells_[i].present) return false;
  const Cell& cell = cells_[i];
  value->type = cell.type;
  value->number = cell.number;
  if (cell.text != 0) {
    value->bytes = texts_[cell.text - 1];
  } else {
    value->bytes.clear();
  }
  return true;
}

bool TableServer::query(const CVEM_SnmpContext& ctx, RowList* rows, std::string* why) {
  CTLVPackage req;
  CTLVPackage rsp;
  const uint64_t calls = CSnmpReadFailures::failedCalls();
  const uint64_t texts = CSnmpReadFailures::refusedTexts();
  if (CallHandler([&] { return handler_->OnQueryTable(ctx, req, rsp); }, why) != 0) {
    reportFailure("OnQueryTable: " + *why);
    return false;
  }
  const uint64_t failedCalls = CSnmpReadFailures::failedCalls() - calls;
  const uint64_t refusedTexts = CSnmpReadFailures::refusedTexts() - texts;
  if (failedCalls != 0 || refusedTexts != 0) {
    *why = ReadFailureText(failedCalls, CSnmpReadFailures::lastFailedResult(), refusedTexts);
    reportFailure("OnQueryTable: " + *why);
    return false;
  }
  reportSuccess();
  rows->clear();
  rows->reserve(rsp.size());
  for (const CTLVRecordV3* record : rsp.records()) {
    if (!record->hasTag(static_cast<unsigned short>(object_.indexColumn))) {
      warnOnce("a row without its index column " + std::to_string(object_.indexColumn) + " is left out");
      continue;
    }
    std::string bad;
    Agentpp::Oidx index;
    if (!CellToIndex(*(*record)[static_cast<unsigned short>(object_.indexColumn)], object_.indexEncoding, &index,
                     &bad)) {
      warnOnce("a row is left out: " + bad);
      continue;
    }
    Row row(object_.columns.size());
    for (const CTLVCell* cell : record->cells()) {
      const MibColumn* col = object_.column(cell->tag());
      if (col == nullptr) {
        warnOnce("cells with tag " + std::to_string(cell->tag()) + " are no column and are left out");
        continue;
      }
      SnmpValue value;
      if (!CellToValue(*cell, col->syntax, &value, &bad)) {
        warnOnce("column " + col->name + " is left out of rows where " + bad);
        continue;
      }
      row.set(static_cast<size_t>(col - object_.columns.data()), value);
    }
    rows->emplace_back(index, std::move(row));
  }
  return true;
}

void TableServer::keepWhole(Generation& gen, RowList& rows) {
  gen.rows.clear();
  gen.known.clear();
  gen.ahead = false;
  for (auto& r : rows) {
    if (!gen.rows.emplace(r.first, std::move(r.second)).second) {
      warnOnce("row " + r.first.get_printable() + " is listed twice; the first is kept");
    }
  }
  gen.known.add(RowIntervalSet::Whole());
}

void TableServer::keepBatch(Generation& gen, const Query& q, RowList& rows) {
  RowIntervalSet::Interval read;
  read.fromStart = q.fromStart;
  read.lo = q.after;
  read.toEnd = rows.size() < q.rows;  // the walk ended before the rows wanted
  if (!rows.empty()) read.hi = rows.back().first;
  if (!read.toEnd && rows.empty()) return;  // nothing learnt
  for (auto& r : rows) gen.rows.emplace(r.first, std::move(r.second));
  gen.known.add(read);
  gen.ahead = !read.toEnd;
  if (gen.ahead) {
    gen.aheadFrom = rows.front().first;
    gen.aheadAfter = read.hi;
  }
}

namespace {

// True when a batch read after `after` (from the first row when fromStart)
// lists its rows in index order, as a batch must.
template <typename RowList>
bool InIndexOrder(const RowList& rows, bool fromStart, const Agentpp::Oidx& after) {
  for (size_t i = 0; i < rows.size(); ++i) {
    const Agentpp::Oidx& prev = i == 0 ? after : rows[i - 1].first;
    if ((i > 0 || !fromStart) && !(prev < rows[i].first)) return false;
  }
  return true;
}

}  // namespace

void TableServer::readJob(const GenerationPtr& gen, Query q, uint64_t serial) {
  {
    // A read queued for a generation since replaced (refreshed or dropped)
    // would store nothing: the array is not asked.
    std::lock_guard<std::mutex> lock(mu_);
    if (gen != current_) {
      if (pending_ && pending_->serial == serial) pending_.reset();
      return;
    }
  }
  const Clock::time_point began = settings_.now();
  RowList rows;
  std::string why;
  const Agentpp::Oidx index = q.fromStart && !q.whole ? Agentpp::Oidx() : q.after;
  bool ok = query(CVEM_SnmpContext(q.op, index, q.rows), &rows, &why);
  bool readWhole = false;
  if (ok && !q.whole) {
    if (handler_->isWholeTable()) {
      // The walk began at the first object and reached the end (also when
      // the handler did not continue after the index it was given).
      q.whole = true;
    } else if (!InIndexOrder(rows, q.fromStart, q.after)) {
      // A batch continues after `after` in index order; a table whose
      // listing does not follow that order cannot be read in batches.
      VEMLog(VEM_KIT_AGENT, VEM_LOG_WARN, "TableServer", __LINE__,
             "%s lists its rows out of index order: it is read whole from now on", object_.name.c_str());
      readWhole = true;
      q.whole = true;
      ok = query(CVEM_SnmpContext(SNMP_OP_WALK, Agentpp::Oidx(), 0), &rows, &why);
    }
  }
  std::lock_guard<std::mutex> lock(mu_);
  if (readWhole) batch_ = false;
  bool late = false;
  if (pending_ && pending_->serial == serial) {
    late = pending_->late;
    pending_.reset();
  }
  if (gen != current_) return;  // refreshed or dropped meanwhile
  if (!ok) {
    fail(why);
    return;
  }
  if (q.whole) {
    keepWhole(*gen, rows);
  } else {
    keepBatch(*gen, q, rows);
  }
  if (!gen->read) {
    gen->read = true;
    gen->born = began;
  }
  snapshot_.noteRead();
  const Clock::time_point now = settings_.now();
  lastRead_ = now - began;
  if (late) {
    std::string text = "a late read took " + Age(lastRead_);
    if (previous_) text += "; until then answers came from the read of " + Age(now - previous_->born) + " ago";
    reportLate(text);
  } else {
    reportInTime();
  }
  freeReplaced(*gen);
}

void TableServer::freeReplaced(const Generation& gen) {
  if (!previous_) return;
  if (gen.known.complete()) {
    previous_.reset();  // every lookup is answered from gen now
    return;
  }
  // The rows from the first index up to where gen goes on without a gap
  // are answered from gen: the previous generation forgets them.
  const std::vector<RowIntervalSet::Interval>& known = gen.known.intervals();
  if (known.empty() || !known.front().fromStart) return;
  const Agentpp::Oidx& hi = known.front().hi;
  previous_->rows.erase(previous_->rows.begin(), previous_->rows.upper_bound(hi));
  previous_->known.removeThrough(hi);
}

void TableServer::start(std::unique_lock<std::mutex>& lock, const Query& q) {
  pending_.reset(new Pending);
  const uint64_t serial = pending_->serial = ++serial_;
  GenerationPtr gen = current_;
  const Clock::duration expected = lastRead_;  // this read takes as long as the last one, likely
  lock.unlock();                               // an inline worker runs the job at once
  BackendWorker::Ticket ticket = worker().submit([this, gen, q, serial] { readJob(gen, q, serial); }, false, expected);
  lock.lock();
  if (pending_ && pending_->serial == serial) pending_->ticket = ticket;
}

bool TableServer::coversAfter(const Generation& gen, bool fromStart, const Agentpp::Oidx& after) {
  return fromStart ? gen.known.coversFirst() : gen.known.coversAfter(after);
}

TableServer::Fetch TableServer::readUntil(std::unique_lock<std::mutex>& lock,
                                          const std::function<bool(const Generation&)>& covered, const Query& q,
                                          const Generation** gen, std::string* why) {
  uint64_t mine = 0;      // the read started for q
  bool mineDone = false;  // ... has stored what it read
  for (;;) {
    if (covered(*current_)) {
      *gen = current_.get();
      return kFetched;
    }
    if (snapshot_.failedInThisRequest()) {
      *why = failure_;
      return kFailed;
    }
    if (mineDone) {
      *why = "the table's batch answered nothing new";
      reportFailure(*why);
      fail(*why);
      return kFailed;
    }
    if (!pending_) {
      start(lock, q);
      mine = serial_;
      mineDone = !pending_;  // an inline worker has run it already
      continue;
    }
    auto canFallBack = [&] {
      return previous_ && covered(*previous_) && settings_.now() - previous_->born <= settings_.maxAge;
    };
    // While the previous generation can answer, a read is not waited for
    // when it made a lookup give up already, or when it is not expected to
    // be done in time: the jobs before it on the worker and the read itself
    // take as long as they did last time.
    const bool slow = worker().expectedDone(pending_->ticket) > deadline_;
    if (!(canFallBack() && (pending_->late || slow))) {
      const BackendWorker::Ticket ticket = pending_->ticket;
      const uint64_t serial = pending_->serial;
      lock.unlock();
      const bool done = worker().waitUntil(ticket, deadline_);
      lock.lock();
      if (done) {
        mineDone = serial == mine;
        continue;
      }
    }
    // Logged once per late read.
    const bool first = pending_ && !pending_->late;
    if (pending_) pending_->late = true;
    if (canFallBack()) {
      if (first) {
        const std::string reason =
            slow ? "its read is not expected within the wait (the last one took " + Age(lastRead_) + ")"
                 : "the back end has not answered within " + Milliseconds(settings_.waitTime);
        reportLate(reason + "; answering from the read of " + Age(settings_.now() - previous_->born) + " ago");
      }
      *gen = previous_.get();
      return kLate;
    }
    *why = "the back end has not answered within " + Milliseconds(settings_.waitTime) +
           ", and no earlier read younger than " + Milliseconds(settings_.maxAge) + " can answer";
    if (first) reportLate(*why);
    return kFailed;
  }
}

void TableServer::readAhead(std::unique_lock<std::mutex>& lock, const Generation& gen, const Agentpp::Oidx& at) {
  if (!worker().threaded() || !batch_ || pending_ || &gen != current_.get() || !gen.ahead) return;
  if (at < gen.aheadFrom) return;  // not in the last batch yet
  current_->ahead = false;         // one read per batch
  start(lock, readAfter(false, gen.aheadAfter, 0));
}

TableServer::Fetch TableServer::nextRow(std::unique_lock<std::mutex>& lock, bool fromStart, const Agentpp::Oidx& after,
                                        unsigned int rowsHint, const Generation** gen, const Rows::value_type** row,
                                        std::string* why) {
  const Fetch got = readUntil(
      lock, [&](const Generation& g) { return coversAfter(g, fromStart, after); },
      readAfter(fromStart, after, rowsHint), gen, why);
  if (got == kFailed) return kFailed;
  auto it = fromStart ? (*gen)->rows.begin() : (*gen)->rows.upper_bound(after);
  *row = it == (*gen)->rows.end() ? nullptr : &*it;
  if (*row != nullptr && got == kFetched) readAhead(lock, **gen, (*row)->first);
  return got;
}

TableServer::Fetch TableServer::ensureRow(std::unique_lock<std::mutex>& lock, const Agentpp::Oidx& index,
                                          const Generation** gen, std::string* why) {
  Query q;
  if (!batch_) {
    q.whole = true;
    q.op = SNMP_OP_GET;
    q.fromStart = false;
    q.after = index;
  } else {
    // The row is the first of a batch that starts after its predecessor.
    q.op = SNMP_OP_GETNEXT;
    q.fromStart = index[0] == 0;
    q.after = q.fromStart ? Agentpp::Oidx() : Agentpp::Oidx{index[0] - 1};
    q.rows = std::max(settings_.batchRows, 1u);
  }
  return readUntil(
      lock, [&](const Generation& g) { return g.known.covers(index); }, q, gen, why);
}

Lookup TableServer::get(const Agentpp::Oidx& oid) {
  const size_t p = prefix_.len();
  if (oid.len() < p + 2 || oid[p] != 1) return WithStatus(Lookup::kNoSuchObject);
  const MibColumn* col = object_.column(oid[p + 1]);
  if (col == nullptr) return WithStatus(Lookup::kNoSuchObject);
  const Agentpp::Oidx index = oid.cut_left(p + 2);
  if (!IsValidIndex(index, object_.indexEncoding)) return WithStatus(Lookup::kNoSuchInstance);
  std::unique_lock<std::mutex> lock(mu_);
  begin(SnapshotLifetime::kStart);
  std::string why;
  const Generation* gen = nullptr;
  if (ensureRow(lock, index, &gen, &why) == kFailed) return Error(why);
  auto row = gen->rows.find(index);
  if (row == gen->rows.end()) return WithStatus(Lookup::kNoSuchInstance);
  Lookup out;
  if (!row->second.get(static_cast<size_t>(col - object_.columns.data()), &out.value)) {
    return WithStatus(Lookup::kNoSuchInstance);
  }
  out.status = Lookup::kFound;
  out.name = oid;
  return out;
}

Lookup TableServer::getNext(const Agentpp::Oidx& oid, unsigned int rowsHint) {
  const size_t p = prefix_.len();
  Agentpp::Oidx entry = prefix_;
  entry += 1u;
  // Where the search starts: a column, and the row index it continues after.
  size_t first = 0;  // position in object_.columns
  bool fromStart = true;
  Agentpp::Oidx after;
  if (oid.startsWith(entry) && oid.len() > p + 1) {
    const uint32_t c = oid[p + 1];
    while (first < object_.columns.size() && object_.columns[first].number < c) ++first;
    if (first < object_.columns.size() && object_.columns[first].number == c) {
      after = oid.cut_left(p + 2);
      fromStart = after.empty();
    }
  } else if (entry < oid) {
    // After the entry and not under it (prefix.2 and beyond): past the table.
    // The prefix itself, anything before the entry and the entry OID alone
    // start from the first instance.
    return WithStatus(Lookup::kEndOfObject);
  }
  std::unique_lock<std::mutex> lock(mu_);
  // An OID with a row index continues a walk; any other starts one.
  begin(fromStart ? SnapshotLifetime::kStart : SnapshotLifetime::kContinue);

  for (size_t i = first; i < object_.columns.size(); ++i) {
    const MibColumn& col = object_.columns[i];
    // Rows without this column (short value lists) are passed over; each
    // step moves to a later row, so the loop ends with the table.
    for (;;) {
      const Generation* gen = nullptr;
      const Rows::value_type* row = nullptr;
      std::string why;
      if (nextRow(lock, fromStart, after, rowsHint, &gen, &row, &why) == kFailed) return Error(why);
      if (row == nullptr) break;
      Lookup out;
      if (row->second.get(i, &out.value)) {
        out.status = Lookup::kFound;
        out.name = entry;
        out.name += col.number;
        out.name += row->first;
        // In the last column the walk is about to leave: the next object
        // is read meanwhile.
        if (next_ != nullptr && i + 1 == object_.columns.size()) {
          lock.unlock();
          next_->prefetch();
        }
        return out;
      }
      fromStart = false;
      after = row->first;
    }
    fromStart = true;
    after = Agentpp::Oidx();
  }
  return WithStatus(Lookup::kEndOfObject);
}

}  // namespace zerva_agent
