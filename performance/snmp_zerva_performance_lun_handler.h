// CPerformanceLunHandler: the LUN table (1.3.6.1.4.1.32473.4.1.21.4), served
// through the host's batch-table base. Rows come one at a time (per-row hooks)
// or a batch of LUNs with one back-end command (GetBatchTableInfo_i).
#ifndef ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_LUN_HANDLER_H_
#define ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_LUN_HANDLER_H_

#include <string>
#include <vector>

#include "snmpcommon/snmp_table_base.h"

class CSnmpPerformanceCommon;

class CPerformanceLunHandler : public CSnmpTableBase {
 public:
  CPerformanceLunHandler();
  ~CPerformanceLunHandler() override;

  int preGetRspCell(const CTLVRecordV3& record) override;
  void postGetRspCell(const CTLVRecordV3& record) override;
  int GetBatchTableInfo_i(CTLVPackageV3<TLVMsgHeadV3>& listing, std::string& index, std::string& firstIndex,
                          unsigned long long& unused, Uint32& amount, int& collectResult,
                          CTLVPackageV3<TLVMsgHeadV3>& rsp) override;
  using CSnmpTableBase::AppendRspPkgRecord;
  void fillReqRecord(CTLVRecordV3* record) override;
  void fillRspRecord(const CTLVRecordV3& in, CTLVRecordV3* out) override;
  std::string getIndexOfRecord(const CTLVRecordV3& record) override;
  std::string getMibKey(const Agentpp::Oidx& index) override;
  bool checkOKBeforeQueryTable(const CVEM_SnmpContext& ctx) override;

  // One row from a record whose LUN ID is the text of cell idTag.
  void fillRspRecord(const CTLVRecordV3& in, CTLVRecordV3* out, unsigned int idTag);
  // Collects the IDs of the next batch of LUNs from the listing, joined by
  // commas. Returns 0 when the batch is complete, -1 when the listing reply
  // is used up or ends the walk.
  int GetBatchUUID(CTLVPackageV3<TLVMsgHeadV3>& listing, Uint32& amount, std::string& index, std::string& firstIndex,
                   std::string& batchObjID);
  // Fetches the statistics of the LUNs in objID (IDs joined by commas) with
  // one command and appends one row per LUN. Returns 0, the back end's code,
  // or -1.
  int QueryPerfLunData(std::string objID, CTLVPackageV3<TLVMsgHeadV3>& rsp);
  // A new row from a statistics record whose LUN ID is in cell idTag.
  void AppendRspPkgRecord(CTLVPackageV3<TLVMsgHeadV3>& rsp, const CTLVRecordV3& record, unsigned int idTag);

 private:
  std::vector<unsigned int> m_vecPerfData;
  CSnmpPerformanceCommon* m_pPerfCommon;
  std::string m_strItemList;
};

#endif  // ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_LUN_HANDLER_H_
