// The agent's view of one registered MIB object: a scalar or a table served
// by one module handler.
//
// Every call into the module is a job of the BackendWorker (the one thread
// that talks to the back end); a lookup waits for its job at most until the
// request's deadline (ServerSettings::waitTime after the request's first
// lookup). When the job is late, the lookup is answered from the previous
// read if it is younger than ServerSettings::maxAge, and with genErr if
// there is none; the job goes on, and its rows serve the next requests.
//
// ScalarServer reads a scalar through OnQueryLeaf and writes it through
// OnSetLeaf. TableServer asks OnQueryTable for rows, turns them into values
// by the MIB description, keeps them sorted by row index and answers GET and
// GETNEXT from that copy:
//  - a table answered whole is kept as one snapshot (SnapshotLifetime says
//    for how long), so a walk over every column reads one consistent copy
//    and the back end is asked once per snapshot;
//  - a batch table (a CSnmpTableBase with a numeric index: LUNs) is read in
//    batches (GETNEXT after an index, rowsWanted rows); every batch joins the
//    snapshot with the index ranges it covers, so a column walk asks the
//    back end O(rows / batch) times and the next columns none; while a
//    walk is in the last batch read, the worker reads the next one;
//  - a refresh reads into a new copy (a generation); the one before stays
//    until then, to answer lookups whose read is late. Rows once read are
//    never changed;
//  - a read fails when the handler fails or when any back-end call failed
//    during it (CSnmpReadFailures), even if the handler answered anyway: the
//    lookup is an error (genErr) and nothing of the read is kept.
// Nothing here depends on Net-SNMP; netsnmp_bridge adapts it.
#ifndef ZERVA_AGENT_OBJECT_SERVER_H_
#define ZERVA_AGENT_OBJECT_SERVER_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agentpp/oidx.h"
#include "host/agent/backend_worker.h"
#include "handlers/snmp_handler.h"
#include "host/agent/mib_description.h"
#include "host/agent/row_interval_set.h"
#include "host/agent/snapshot_lifetime.h"
#include "host/agent/snmp_value.h"

namespace zerva_agent {

struct ServerSettings {
  // How long rows read from the back end serve GETs and walks that start;
  // zero: only the request that read them.
  std::chrono::milliseconds snapshotTime{3000};
  // How long a walk goes on with the snapshot it began on, when longer than
  // the snapshot time; zero: no longer than the snapshot time.
  std::chrono::milliseconds walkTime{60000};
  // Rows asked of a batch table per request (at least; a GETBULK may ask more).
  unsigned int batchRows = 160;
  // The time source of ages (tests step it by hand); waits are on the
  // steady clock.
  std::function<Clock::time_point()> now = [] { return Clock::now(); };
  // The number of the SNMP request being answered (the Net-SNMP bridge
  // counts them): rows read for a request serve all of it, and a read that
  // failed is not tried again within it. Without a count every lookup is a
  // request of its own.
  std::function<uint64_t()> request = [] {
    static std::atomic<uint64_t> n{0};
    return ++n;
  };
  // How long one SNMP request waits for the back end, all its lookups
  // together.
  std::chrono::milliseconds waitTime{300};
  // The oldest read a late lookup may be answered from.
  std::chrono::milliseconds maxAge{180000};
  // The thread that calls the module; null: each server calls it inline,
  // on the caller's thread (no wait is then bounded, nothing is read ahead).
  // REQUIRES: the worker runs no job of a server after the server is gone.
  BackendWorker* worker = nullptr;
  // The time by which the current request must be answered; unset: waitTime
  // after each lookup begins (RequestDeadline shares one across servers).
  std::function<Clock::time_point()> deadline;
};

// The deadline of the SNMP request being answered: waitTime after its first
// lookup. One is shared by every server, so a request over many objects
// waits waitTime in all.
std::function<Clock::time_point()> RequestDeadline(const ServerSettings& settings);

// The outcome of a GET or GETNEXT on one object.
struct Lookup {
  enum Status {
    kFound,           // name and value are set
    kNoSuchObject,    // GET of an OID that is no column of the object
    kNoSuchInstance,  // GET of a row or instance that does not exist
    kEndOfObject,     // GETNEXT: nothing after the OID in this object
    kError,           // the read failed (handler or back end): error says why
  };
  Status status = kEndOfObject;
  Agentpp::Oidx name;
  SnmpValue value;
  std::string error;
};

// SNMP errors a SET check can give (values as in RFC 3416).
enum SetError {
  kSetOk = 0,
  kSetWrongType = 7,
  kSetWrongLength = 8,
  kSetWrongValue = 10,
  kSetNoCreation = 11,
  kSetNotWritable = 17,
};

class ObjectServer {
 public:
  // REQUIRES: handler and object outlive the server.
  ObjectServer(const MibObject& object, CSnmpHandler* handler, const ServerSettings& settings);
  virtual ~ObjectServer() {}
  ObjectServer(const ObjectServer&) = delete;
  ObjectServer& operator=(const ObjectServer&) = delete;

  const MibObject& object() const { return object_; }
  const Agentpp::Oidx& prefix() const { return prefix_; }

  // The value of exactly oid. REQUIRES: oid lies under prefix().
  virtual Lookup get(const Agentpp::Oidx& oid) = 0;
  // The first instance of this object after oid. rowsHint is how many rows
  // the request can use (GETBULK repetitions), 0 when unknown.
  virtual Lookup getNext(const Agentpp::Oidx& oid, unsigned int rowsHint) = 0;
  // Drops whatever was kept from the back end.
  virtual void invalidate() {}
  // Has the worker read what a walk entering this object would read first,
  // when it would read at all: the walk of the object before it is about
  // to reach it. No request waits for it.
  virtual void prefetch() {}
  // The object after this one in OID order: a walk leaving this one goes
  // there. REQUIRES: next outlives this server.
  void setNext(ObjectServer* next) { next_ = next; }

 protected:
  // Records a failure: logged once until the object answers again.
  void reportFailure(const std::string& what);
  // Records a good answer after failures (logged once).
  void reportSuccess();
  // Logs a problem with the answers' content once per distinct text.
  void warnOnce(const std::string& text);

  // The deadline of the request the current lookup belongs to.
  Clock::time_point deadline() const;
  // The thread every call into the module runs on.
  BackendWorker& worker() const { return *worker_; }
  // Notes a lookup answered from an earlier read because the back end was
  // late: logged when the object starts being late, at debug level after.
  void reportLate(const std::string& what);
  // Notes a read that came within the wait after late ones (logged once).
  void reportInTime();

  const MibObject& object_;
  CSnmpHandler* const handler_;
  const ServerSettings settings_;
  const Agentpp::Oidx prefix_;
  ObjectServer* next_ = nullptr;

 private:
  std::unique_ptr<BackendWorker> ownWorker_;  // when the settings give none
  BackendWorker* worker_;
  std::mutex logMu_;     // the worker and the request path both log
  std::string failing_;  // the reason of the current failure, empty when fine
  bool late_ = false;    // the last read was late
  std::set<std::string> warned_;
};

class ScalarServer : public ObjectServer {
 public:
  ScalarServer(const MibObject& object, CSnmpHandler* handler, const ServerSettings& settings);

  Lookup get(const Agentpp::Oidx& oid) override;
  Lookup getNext(const Agentpp::Oidx& oid, unsigned int rowsHint) override;

  // The instance OID: prefix.0.
  Agentpp::Oidx instance() const;
  bool writable() const;
  // Checks a SET of oid to a value of that SNMP type (number: the value;
  // negative: a negative INTEGER). Asks nothing of the back end.
  SetError checkSet(const Agentpp::Oidx& oid, unsigned char type, uint64_t number, bool negative) const;
  // Reads the current value for a later undo. Returns 0 or the failure text in *why.
  int readCurrent(uint32_t* value, std::string* why);
  // Writes the value through OnSetLeaf: a request of one record holding one
  // unsigned 4-byte cell with tag 0. Returns the handler's result (0 = done);
  // a throwing handler gives -1. *why tells what failed.
  int write(uint32_t value, std::string* why);

 private:
  // One read of the scalar by the worker; lookups meanwhile wait for it too.
  struct Read {
    BackendWorker::Ticket ticket;
    Lookup result;      // set on the worker before the job is done
    bool late = false;  // a lookup gave up waiting for it (guarded by mu_)
  };
  // The scalar's value: read on the worker within the request's deadline,
  // else the last value read (not older than maxAge), else an error.
  Lookup read();
  // Calls OnQueryLeaf (on the worker).
  Lookup readNow();

  std::mutex mu_;                  // guards what follows
  std::shared_ptr<Read> pending_;  // the read under way
  Lookup last_;                    // the last value read
  Clock::time_point lastAt_;
};

class TableServer : public ObjectServer {
 public:
  // batch: read the table in batches after an index (CSnmpTableBase tables).
  // Only a numeric index names a listing key a batch can continue after, so a
  // table with a text index is read whole all the same.
  TableServer(const MibObject& object, CSnmpHandler* handler, const ServerSettings& settings, bool batch);

  Lookup get(const Agentpp::Oidx& oid) override;
  Lookup getNext(const Agentpp::Oidx& oid, unsigned int rowsHint) override;
  void invalidate() override;
  void prefetch() override;

  // False for a table read whole: not a batch table, a text index, or a
  // batch table that turned out to list rows out of index order (read whole
  // from then on).
  bool batchMode() const;

 private:
  // One row's values by column position (in object().columns). A walk of a
  // large batch table keeps every row of the snapshot, so a cell is kept in
  // 16 bytes: its number and type, text (rare) aside.
  class Row {
   public:
    explicit Row(size_t columns = 0) : cells_(columns) {}
    // Sets the value at position i unless it is set already (a repeated tag
    // keeps its first cell). REQUIRES: i < columns.
    void set(size_t i, const SnmpValue& value);
    // The value at position i; false when the row has none.
    bool get(size_t i, SnmpValue* value) const;

   private:
    struct Cell {
      uint64_t number = 0;
      uint32_t text = 0;  // 1 + position in texts_, 0: no bytes
      SnmpType type = kAsnInteger;
      bool present = false;
    };
    std::vector<Cell> cells_;
    std::vector<std::string> texts_;
  };
  typedef std::map<Agentpp::Oidx, Row> Rows;
  typedef std::vector<std::pair<Agentpp::Oidx, Row>> RowList;

  // One read of the table: its rows and the indexes they cover. A refresh
  // reads into a new generation; a row once stored is never changed (the
  // generation it replaces only loses the rows the new one answers).
  struct Generation {
    Rows rows;
    RowIntervalSet known;    // the indexes rows covers completely
    Clock::time_point born;  // the first read into it
    bool read = false;       // something was read into it
    // The last batch read, when the table goes on after it: a walk that
    // reaches its first row has the next batch read ahead.
    bool ahead = false;
    Agentpp::Oidx aheadFrom;   // the batch's first row
    Agentpp::Oidx aheadAfter;  // its last row: the next batch starts after it
  };
  typedef std::shared_ptr<Generation> GenerationPtr;

  // What one read asks OnQueryTable.
  struct Query {
    bool whole = false;  // the whole table (else one batch)
    ESnmpOperation op = SNMP_OP_WALK;
    bool fromStart = true;
    Agentpp::Oidx after;  // the row index it starts after (or the GET's row)
    unsigned int rows = 0;
  };
  // The read under way (one at a time per table).
  struct Pending {
    uint64_t serial = 0;
    BackendWorker::Ticket ticket;  // unset until the worker has it
    bool late = false;             // a lookup gave up waiting for it
  };

  enum Fetch { kFetched, kFailed, kLate };

  // Begins a lookup of this use: the request's deadline, and a new
  // generation when the current one may not serve it. REQUIRES: mu_ held.
  void begin(SnapshotLifetime::Use use);
  // Starts a new generation; the current one becomes the previous one when
  // it holds rows. REQUIRES: mu_ held.
  void roll();
  // Drops the current generation after a failed read: the rest of the
  // request answers the same error. REQUIRES: mu_ held.
  void fail(const std::string& why);
  // The generation to answer from and its first row after `after` (from the
  // first row when fromStart), reading what is missing. *row is null at the
  // end of the table.
  Fetch nextRow(std::unique_lock<std::mutex>& lock, bool fromStart, const Agentpp::Oidx& after, unsigned int rowsHint,
                const Generation** gen, const Rows::value_type** row, std::string* why);
  // Makes sure row index is known in *gen (kept or known to be missing).
  Fetch ensureRow(std::unique_lock<std::mutex>& lock, const Agentpp::Oidx& index, const Generation** gen,
                  std::string* why);
  // Has the current generation read until covered() holds: waits for the
  // read under way or starts q, until the request's deadline. kLate: the
  // previous generation, when it covers what is wanted and is young
  // enough, is in *gen.
  Fetch readUntil(std::unique_lock<std::mutex>& lock, const std::function<bool(const Generation&)>& covered,
                  const Query& q, const Generation** gen, std::string* why);
  // The read of the rows after `after` (from the first row when
  // fromStart): the whole table, or a batch of at least rowsHint rows.
  // REQUIRES: mu_ held.
  Query readAfter(bool fromStart, const Agentpp::Oidx& after, unsigned int rowsHint) const;
  // Queues q on the worker, into the current generation. REQUIRES: mu_ held
  // (released meanwhile), nothing pending.
  void start(std::unique_lock<std::mutex>& lock, const Query& q);
  // The worker's part of a read: asks the module, then stores the rows
  // into gen unless it was replaced meanwhile.
  void readJob(const GenerationPtr& gen, Query q, uint64_t serial);
  // Frees what gen now answers from the previous generation: all of it
  // once gen is complete, else the rows up to where gen covers the table
  // from its first row without a gap (a walk fills it so), so that a walk
  // of a large table holds about one copy, not two. REQUIRES: mu_ held.
  void freeReplaced(const Generation& gen);
  // While a walk is in the last batch read, reads the next one.
  void readAhead(std::unique_lock<std::mutex>& lock, const Generation& gen, const Agentpp::Oidx& at);
  // Calls OnQueryTable; on success fills *rows in answer order. The read
  // fails when the handler does, and also when a back-end call failed or a
  // value list did not parse during it (the handler answered anyway: an
  // empty table when the switch query failed, a table without the row whose
  // statistics were refused).
  bool query(const CVEM_SnmpContext& ctx, RowList* rows, std::string* why);
  // Stores rows as the whole table of gen.
  void keepWhole(Generation& gen, RowList& rows);
  // Stores a batch read for q into gen.
  void keepBatch(Generation& gen, const Query& q, RowList& rows);
  // True when the first row after `after` (from the first row when
  // fromStart) is kept in gen or known to be missing.
  static bool coversAfter(const Generation& gen, bool fromStart, const Agentpp::Oidx& after);

  mutable std::mutex mu_;  // guards what follows (the worker stores, lookups read)
  bool batch_;
  GenerationPtr current_;
  GenerationPtr previous_;     // null, or the last generation that held rows
  SnapshotLifetime snapshot_;  // which lookups current_ may serve
  std::string failure_;        // why the last read failed
  std::unique_ptr<Pending> pending_;
  uint64_t serial_ = 0;         // of the last read started
  Clock::duration lastRead_{};  // how long the last read that stored rows took
  Clock::time_point deadline_;  // of the current lookup's request
};

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_OBJECT_SERVER_H_
