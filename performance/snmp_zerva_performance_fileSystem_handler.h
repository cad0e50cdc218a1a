// CPerformanceFileSystemHandler: the file-system table
// (1.3.6.1.4.1.32473.4.1.21.14), served through the host's batch-table base
// with one statistics query per file system. The listing is asked sorted
// ascending by file-system ID.
#ifndef ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_FILESYSTEM_HANDLER_H_
#define ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_FILESYSTEM_HANDLER_H_

#include <string>
#include <vector>

#include "snmpcommon/snmp_table_base.h"
#include "tlv/backend_codes.h"

class CSnmpPerformanceCommon;

class CPerformanceFileSystemHandler : public CSnmpTableBase {
 public:
  CPerformanceFileSystemHandler();
  ~CPerformanceFileSystemHandler() override;

  int preGetRspCell(const CTLVRecordV3& record) override;
  void postGetRspCell(const CTLVRecordV3& record) override;
  void fillReqRecord(CTLVRecordV3* record) override;
  void fillRspRecord(const CTLVRecordV3& in, CTLVRecordV3* out) override;
  std::string getIndexOfRecord(const CTLVRecordV3& record) override;
  std::string getMibKey(const Agentpp::Oidx& index) override;
  bool checkOKBeforeQueryTable(const CVEM_SnmpContext& ctx) override;

  // The unsorted listing, kept as it is by fillReqRecord.
  static const unsigned long long kPlainListingCmd = backend::kPlainListingCmd;
  // The sorted listing that every other listing becomes.
  static const unsigned long long kSortedListingCmd = backend::kSortedListingCmd;

 private:
  std::vector<unsigned int> m_vecPerfData;
  CSnmpPerformanceCommon* m_pPerfCommon;
  std::string m_strItemList;
};

#endif  // ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_FILESYSTEM_HANDLER_H_
