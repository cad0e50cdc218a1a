// The agent's view of one registered MIB object: a scalar or a table served
// by one module handler.
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
//    back end O(rows / batch) times and the next columns none;
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
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agentpp/oidx.h"
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
  // The time source (tests step it by hand).
  std::function<Clock::time_point()> now = [] { return Clock::now(); };
  // The number of the SNMP request being answered (the Net-SNMP bridge
  // counts them): rows read for a request serve all of it, and a read that
  // failed is not tried again within it. Without a count every lookup is a
  // request of its own.
  std::function<uint64_t()> request = [] {
    static std::atomic<uint64_t> n{0};
    return ++n;
  };
};

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

 protected:
  // Records a failure: logged once until the object answers again.
  void reportFailure(const std::string& what);
  // Records a good answer after failures (logged once).
  void reportSuccess();
  // Logs a problem with the answers' content once per distinct text.
  void warnOnce(const std::string& text);

  const MibObject& object_;
  CSnmpHandler* const handler_;
  const ServerSettings settings_;
  const Agentpp::Oidx prefix_;

 private:
  std::string failing_;  // the reason of the current failure, empty when fine
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
  // Reads the scalar's value.
  Lookup read();
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

  // False for a table read whole: not a batch table, a text index, or a
  // batch table that turned out to list rows out of index order (read whole
  // from then on).
  bool batchMode() const { return batch_; }

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

  enum Fetch { kFetched, kFailed };

  // Begins a lookup of this use: drops the kept rows when their snapshot may
  // not serve it.
  void begin(SnapshotLifetime::Use use);
  // Records a failed read: nothing is kept, and the rest of the request
  // answers the same error without reading again. Returns kFailed.
  Fetch fail(const std::string& why);
  // The first kept row after `after` (from the first row when fromStart),
  // fetching what is missing. *row is null at the end of the table.
  Fetch nextRow(bool fromStart, const Agentpp::Oidx& after, unsigned int rowsHint, const Rows::value_type** row,
                std::string* why);
  // Makes sure row index is known (kept or known to be missing).
  Fetch ensureRow(const Agentpp::Oidx& index, std::string* why);
  // Reads the whole table.
  Fetch fetchWhole(ESnmpOperation op, const Agentpp::Oidx& index, std::string* why);
  // Reads one batch after `after` (from the first row when fromStart).
  Fetch fetchBatch(bool fromStart, const Agentpp::Oidx& after, unsigned int rowsHint, std::string* why);
  // Calls OnQueryTable; on success fills *rows in answer order. The read
  // fails when the handler does, and also when a back-end call failed or a
  // value list did not parse during it (the handler answered anyway: an
  // empty table when the switch query failed, a table without the row whose
  // statistics were refused).
  bool query(const CVEM_SnmpContext& ctx, std::vector<std::pair<Agentpp::Oidx, Row>>* rows, std::string* why);
  // Stores rows as the whole table.
  void keepWhole(std::vector<std::pair<Agentpp::Oidx, Row>>& rows);
  // True when the first row after `after` (from the first row when
  // fromStart) is kept or known to be missing.
  bool coversAfter(bool fromStart, const Agentpp::Oidx& after) const;

  bool batch_;
  Rows rows_;
  RowIntervalSet known_;       // the indexes rows_ covers completely
  SnapshotLifetime snapshot_;  // which lookups rows_ and known_ may serve
  std::string failure_;        // why the last read failed
};

}  // namespace zerva_agent

#endif  // ZERVA_AGENT_OBJECT_SERVER_H_
