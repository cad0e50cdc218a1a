// The controllers' file-protocol tables. CPerformanceControllerNFSV3Handler
// (1.3.6.1.4.1.32473.4.1.21.10) gives the family its item list and row
// layout: the controller object ID as text, then items 182 and 439. Its
// siblings differ only in the object type of the statistics query.
#ifndef ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CONTROLLERNFSV3_HANDLER_H_
#define ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CONTROLLERNFSV3_HANDLER_H_

#include <string>
#include <vector>

#include "performance/snmp_zerva_performance_node_handler.h"

class CPerformanceControllerNFSV3Handler : public CPerformanceNodeHandler {
 public:
  ~CPerformanceControllerNFSV3Handler() override {}

  // "182,439"; logs it at debug level.
  std::string getStatistics() override;
  unsigned int getObjIDForPerf() override;  // 1000, NFSv3
  // Tag 1: the object ID text with its NUL; tags 2 and 3: values 0 and 1.
  void fillRspRecord(CTLVRecordV3* row, std::string objectID, std::vector<unsigned int>& values) override;
};

#endif  // ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_CONTROLLERNFSV3_HANDLER_H_
