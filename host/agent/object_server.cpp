#include "host/agent/object_server.h"

#include <algorithm>
#include <exception>
#include <memory>

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

ObjectServer::ObjectServer(const MibObject& object, CSnmpHandler* handler, const ServerSettings& settings)
    : object_(object),
      handler_(handler),
      settings_(settings),
      prefix_(std::vector<uint32_t>(object.oid.begin(), object.oid.end())) {}

void ObjectServer::reportFailure(const std::string& what) {
  if (failing_ == what) return;
  failing_ = what;
  VEMLog(VEM_KIT_AGENT, VEM_LOG_ERROR, "ObjectServer", __LINE__, "%s (%s) failed: %s; answering genErr",
         object_.name.c_str(), object_.prefix.c_str(), what.c_str());
}

void ObjectServer::reportSuccess() {
  if (failing_.empty()) return;
  failing_.clear();
  VEMLog(VEM_KIT_AGENT, VEM_LOG_WARN, "ObjectServer", __LINE__, "%s (%s) answers again", object_.name.c_str(),
         object_.prefix.c_str());
}

void ObjectServer::warnOnce(const std::string& text) {
  if (!warned_.insert(text).second) return;
  VEMLog(VEM_KIT_AGENT, VEM_LOG_WARN, "ObjectServer", __LINE__, "%s (%s): %s", object_.name.c_str(),
         object_.prefix.c_str(), text.c_str());
}

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

Lookup ScalarServer::read() {
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
  CVEM_SnmpContext ctx(SNMP_OP_SET, Agentpp::Oidx{0}, 1);
  CTLVPackage req;
  std::unique_ptr<CTLVRecordV3> record(new CTLVRecordV3(CTLVRecordV3::RESPONSE_ID, CTLVRecordV3::DEFAULT_BUCKETS));
  record->append(tlv::NewUintCell(0, CTLVCell::TLV_TYPE_UINT, value, 4));
  req.push_back(record.release());
  CTLVPackage rsp;
  const int rc = CallHandler([&] { return handler_->OnSetLeaf(ctx, req, rsp); }, why);
  if (rc != 0) {
    reportFailure("OnSetLeaf(" + std::to_string(value) + "): " + *why);
  } else {
    reportSuccess();
  }
  return rc;
}

// ---------------------------------------------------------------- TableServer

TableServer::TableServer(const MibObject& object, CSnmpHandler* handler, const ServerSettings& settings, bool batch)
    : ObjectServer(object, handler, settings),
      batch_(batch && object.indexEncoding == MibIndexEncoding::Integer),
      snapshot_(settings.snapshotTime, settings.walkTime, settings.now, settings.request) {}

void TableServer::invalidate() {
  rows_.clear();
  known_.clear();
  snapshot_.drop();
}

void TableServer::begin(SnapshotLifetime::Use use) {
  if (snapshot_.begin(use)) invalidate();
}

TableServer::Fetch TableServer::fail(const std::string& why) {
  invalidate();
  snapshot_.noteFailure();
  failure_ = why;
  return kFailed;
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

bool TableServer::query(const CVEM_SnmpContext& ctx, std::vector<std::pair<Agentpp::Oidx, Row>>* rows,
                        std::string* why) {
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

void TableServer::keepWhole(std::vector<std::pair<Agentpp::Oidx, Row>>& rows) {
  invalidate();
  for (auto& r : rows) {
    if (!rows_.emplace(r.first, std::move(r.second)).second) {
      warnOnce("row " + r.first.get_printable() + " is listed twice; the first is kept");
    }
  }
  known_.add(RowIntervalSet::Whole());
  snapshot_.noteRead();
}

TableServer::Fetch TableServer::fetchWhole(ESnmpOperation op, const Agentpp::Oidx& index, std::string* why) {
  std::vector<std::pair<Agentpp::Oidx, Row>> rows;
  if (!query(CVEM_SnmpContext(op, index, 0), &rows, why)) return fail(*why);
  keepWhole(rows);
  return kFetched;
}

TableServer::Fetch TableServer::fetchBatch(bool fromStart, const Agentpp::Oidx& after, unsigned int rowsHint,
                                           std::string* why) {
  const unsigned int wanted = std::max(rowsHint, std::max(settings_.batchRows, 1u));
  std::vector<std::pair<Agentpp::Oidx, Row>> rows;
  const Agentpp::Oidx index = fromStart ? Agentpp::Oidx() : after;
  if (!query(CVEM_SnmpContext(SNMP_OP_GETNEXT, index, wanted), &rows, why)) return fail(*why);
  if (handler_->isWholeTable()) {
    // The walk began at the first object and reached the end (also when the
    // handler did not continue after the index it was given).
    keepWhole(rows);
    return kFetched;
  }
  // A batch continues after `after` in index order; a table whose listing
  // does not follow that order cannot be read in batches.
  bool ordered = true;
  for (size_t i = 0; i < rows.size() && ordered; ++i) {
    const Agentpp::Oidx& prev = i == 0 ? after : rows[i - 1].first;
    if ((i > 0 || !fromStart) && !(prev < rows[i].first)) ordered = false;
  }
  if (!ordered) {
    batch_ = false;
    VEMLog(VEM_KIT_AGENT, VEM_LOG_WARN, "TableServer", __LINE__,
           "%s lists its rows out of index order: it is read whole from now on", object_.name.c_str());
    return fetchWhole(SNMP_OP_WALK, Agentpp::Oidx(), why);
  }
  RowIntervalSet::Interval read;
  read.fromStart = fromStart;
  read.lo = after;
  read.toEnd = rows.size() < wanted;  // the walk ended before the rows wanted
  if (!rows.empty()) read.hi = rows.back().first;
  if (!read.toEnd && rows.empty()) {
    // Nothing learnt; the snapshot's time starts all the same.
    snapshot_.noteRead();
    return kFetched;
  }
  for (auto& r : rows) rows_.emplace(r.first, std::move(r.second));
  known_.add(read);
  snapshot_.noteRead();
  return kFetched;
}

bool TableServer::coversAfter(bool fromStart, const Agentpp::Oidx& after) const {
  return fromStart ? known_.coversFirst() : known_.coversAfter(after);
}

TableServer::Fetch TableServer::nextRow(bool fromStart, const Agentpp::Oidx& after, unsigned int rowsHint,
                                        const Rows::value_type** row, std::string* why) {
  if (!coversAfter(fromStart, after)) {
    if (snapshot_.failedInThisRequest()) {
      *why = failure_;
      return kFailed;
    }
    if (!batch_) {
      if (fetchWhole(fromStart ? SNMP_OP_WALK : SNMP_OP_GETNEXT, after, why) != kFetched) return kFailed;
    } else if (fetchBatch(fromStart, after, rowsHint, why) != kFetched) {
      return kFailed;
    }
  }
  if (!coversAfter(fromStart, after)) {
    *why = "the table's batch answered nothing new";
    reportFailure(*why);
    return fail(*why);
  }
  auto it = fromStart ? rows_.begin() : rows_.upper_bound(after);
  *row = it == rows_.end() ? nullptr : &*it;
  return kFetched;
}

TableServer::Fetch TableServer::ensureRow(const Agentpp::Oidx& index, std::string* why) {
  if (known_.covers(index)) return kFetched;
  if (snapshot_.failedInThisRequest()) {
    *why = failure_;
    return kFailed;
  }
  if (!batch_ || object_.indexEncoding != MibIndexEncoding::Integer) {
    return fetchWhole(SNMP_OP_GET, index, why);
  }
  // The row is the first of a batch that starts after its predecessor.
  const bool fromStart = index[0] == 0;
  const Agentpp::Oidx before = fromStart ? Agentpp::Oidx() : Agentpp::Oidx{index[0] - 1};
  if (fetchBatch(fromStart, before, 1, why) != kFetched) return kFailed;
  if (!known_.covers(index)) return fetchWhole(SNMP_OP_WALK, Agentpp::Oidx(), why);
  return kFetched;
}

Lookup TableServer::get(const Agentpp::Oidx& oid) {
  const size_t p = prefix_.len();
  if (oid.len() < p + 2 || oid[p] != 1) return WithStatus(Lookup::kNoSuchObject);
  const MibColumn* col = object_.column(oid[p + 1]);
  if (col == nullptr) return WithStatus(Lookup::kNoSuchObject);
  const Agentpp::Oidx index = oid.cut_left(p + 2);
  if (!IsValidIndex(index, object_.indexEncoding)) return WithStatus(Lookup::kNoSuchInstance);
  begin(SnapshotLifetime::kStart);
  std::string why;
  if (ensureRow(index, &why) != kFetched) return Error(why);
  auto row = rows_.find(index);
  if (row == rows_.end()) return WithStatus(Lookup::kNoSuchInstance);
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
  // An OID with a row index continues a walk; any other starts one.
  begin(fromStart ? SnapshotLifetime::kStart : SnapshotLifetime::kContinue);

  for (size_t i = first; i < object_.columns.size(); ++i) {
    const MibColumn& col = object_.columns[i];
    // Rows without this column (short value lists) are passed over; each
    // step moves to a later row, so the loop ends with the table.
    for (;;) {
      const Rows::value_type* row = nullptr;
      std::string why;
      if (nextRow(fromStart, after, rowsHint, &row, &why) != kFetched) return Error(why);
      if (row == nullptr) break;
      Lookup out;
      if (row->second.get(i, &out.value)) {
        out.status = Lookup::kFound;
        out.name = entry;
        out.name += col.number;
        out.name += row->first;
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
