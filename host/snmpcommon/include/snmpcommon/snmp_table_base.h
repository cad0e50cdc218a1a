// CSnmpTableBase: the host's batch-table base.
//
// A table built on it does not answer OnQueryTable itself: the base walks the
// back end's paged object listing (LISTING_CMD) and asks the
// handler, through hooks, to fill the listing request, name each listed
// object, and turn objects into rows, a batch of up to m_usBatchSize objects
// at a time. docs/batch-table-walk.md explains the walk with an example.
//
// The walk, for one OnQueryTable call:
//  1. checkOKBeforeQueryTable(ctx) false: no rows, result 0.
//  2. Start key: DEFAULT_STRING_KEY ("": from the first object) for a walk,
//     a GET, or a request without index; getMibKey(ctx.index) for a GETNEXT
//     or GETBULK that carries an index (objects after that key).
//  3. Loop: build a listing request (record LISTING_CMD, cells from
//     fillReqRecord with the current key), SendBatchPackage, then
//     GetBatchTableInfo_i over the reply with amount = the batch size (or
//     fewer when the request wants fewer rows). The walk's position (index)
//     and first key (firstIndex) start as INVALID_KEY and live for the call.
//  4. The walk ends when the listing ends (a control record, CONTROL_TAG = 1,
//     resets index to INVALID_KEY), when it comes back to firstIndex, when
//     the rows wanted are answered, or when the back end makes no progress.
//     Otherwise the next listing continues after index.
//  5. The whole-table flag tells whether rsp holds the complete table (the
//     walk began at the first object and reached the end).
#ifndef ZERVA_SNMPCOMMON_SNMP_TABLE_BASE_H_
#define ZERVA_SNMPCOMMON_SNMP_TABLE_BASE_H_

#include <string>

#include "agentpp/oidx.h"
#include "handlers/snmp_handler.h"
#include "tlv/backend_codes.h"

typedef unsigned int Uint32;

class CSnmpTableBase : public CSnmpTableHandler {
 public:
  // The walk position before any object was taken, and after the listing
  // ended. Never a back-end object key.
  static const std::string INVALID_KEY;
  // The listing key that starts at the first object (sends no key cell).
  static const std::string DEFAULT_STRING_KEY;

  enum : unsigned short { DEFAULT_BATCH_SIZE = 160 };
  // The control cell of a listing reply: 0 = more objects follow, 1 = end.
  enum : unsigned short { CONTROL_TAG = backend::kTagControl };
  // Record identifier of the listing request.
  static const unsigned long long LISTING_CMD = backend::kObjectListingCmd;

  CSnmpTableBase();
  ~CSnmpTableBase() override {}

  // Walks the table as described above and appends the rows to rsp. Returns
  // 0, or the code of the failing listing or statistics query (rows answered
  // before it stay in rsp).
  int OnQueryTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                   CTLVPackageV3<TLVMsgHeadV3>& rsp) override;

  // True when the last OnQueryTable answered the whole table.
  bool isWholeTable() override { return m_bWholeTable; }

  // Fetches what a row needs before fillRspRecord. Returns 0, or a code that
  // ends the walk. Default: 0.
  virtual int preGetRspCell(const CTLVRecordV3& record);
  // Releases what preGetRspCell fetched. Default: nothing.
  virtual void postGetRspCell(const CTLVRecordV3& record);
  // Takes up to amount objects from one listing reply, from the first,
  // updating index (last key taken) and firstIndex (first key of the walk)
  // and counting amount down; rows is the number of rows the walk answered
  // before this call. Returns 0 when
  // the batch is complete (amount reached 0, the listing came back to
  // firstIndex, or it ended before any object was taken) and -1 when the
  // reply was used up first (more listing needed, or the listing ended:
  // then index is INVALID_KEY). collectResult receives the return value. A
  // failing statistics query is stored in the result code (m_iRetCode) and
  // returned. Default: one row per object through preGetRspCell and
  // AppendRspPkgRecord; records failing queryRecordValidation are skipped,
  // an object whose preGetRspCell fails with a back-end code loses its row,
  // and a transport failure ends the walk.
  virtual int GetBatchTableInfo_i(CTLVPackageV3<TLVMsgHeadV3>& listing, std::string& index, std::string& firstIndex,
                                  unsigned long long& rows, Uint32& amount, int& collectResult,
                                  CTLVPackageV3<TLVMsgHeadV3>& rsp);
  // Builds one row from a listed record: a new record (identifier all
  // ones), fillRspRecord, postGetRspCell, then appended to rsp.
  virtual void AppendRspPkgRecord(CTLVPackageV3<TLVMsgHeadV3>& rsp, const CTLVRecordV3& record);
  // Adds the object type and the current key to the listing request.
  virtual void fillReqRecord(CTLVRecordV3* record) = 0;
  // Appends the cells of one row.
  virtual void fillRspRecord(const CTLVRecordV3& in, CTLVRecordV3* out) = 0;
  // The key of a listed object.
  virtual std::string getIndexOfRecord(const CTLVRecordV3& record) = 0;
  // The listing key after which a GETNEXT from this SNMP row index continues.
  virtual std::string getMibKey(const Agentpp::Oidx& index) = 0;
  // False skips the record. Default: the record carries tag 1.
  virtual bool queryRecordValidation(const CTLVRecordV3& record);
  // False answers an empty table. Default: true.
  virtual bool checkOKBeforeQueryTable(const CVEM_SnmpContext& ctx);
  // Carries a listing request to the back end: configure(req, rsp, true).
  virtual int SendBatchPackage(CTLVPackageV3<TLVMsgHeadV3>& req, CTLVPackageV3<TLVMsgHeadV3>& rsp);

  // The control value of a listing record: -1 without a control cell,
  // else its number (a non-numeric control cell throws CVEM_Exception).
  static long long ControlValue(const CTLVRecordV3& record);

 protected:
  unsigned short m_usBatchSize;  // most objects per batch (amount of one GetBatchTableInfo_i)
  std::string m_strCurKey;       // listing key of the next request (tag 1 unless empty)
  int m_iRetCode;                // result of the last statistics query of a batch
  bool m_bWholeTable;            // rsp of the last walk holds the whole table

 private:
  // Walks the listing from startKey; see OnQueryTable.
  int walk(const std::string& startKey, bool fromStart, unsigned int rowsWanted, CTLVPackageV3<TLVMsgHeadV3>& rsp);
};

#endif  // ZERVA_SNMPCOMMON_SNMP_TABLE_BASE_H_
