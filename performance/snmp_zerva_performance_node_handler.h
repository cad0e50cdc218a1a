// CPerformanceNodeHandler: the controller (node) table
// (1.3.6.1.4.1.32473.4.1.21.3), indexed by node number, nine statistic items
// per controller and two more where the array reports feature 602.
#ifndef ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_NODE_HANDLER_H_
#define ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_NODE_HANDLER_H_

#include <string>
#include <vector>

#include "performance/snmp_zerva_performance_simple_handler.h"

class CPerformanceNodeHandler : public CPerformanceSimpleHandler {
 public:
  // Builds the item list, asking feature 602 once.
  CPerformanceNodeHandler();
  ~CPerformanceNodeHandler() override {}

  std::string getStatistics() override;
  unsigned int getObjIDForKey() override;   // 207, controllers
  unsigned int getObjIDForPerf() override;  // getObjIDForKey()
  // Node number in tag 1, then one value per item in tags 2 to 12; without
  // feature 602 tags 11 and 12 hold 8 bytes of all ones. An object ID that
  // is not a controller ID gives no cells.
  void fillRspRecord(CTLVRecordV3* row, std::string objectID, std::vector<unsigned int>& values) override;
  // True when cell 1 is a controller ID.
  bool checkRspValid(const CTLVRecordV3& record) override;

 protected:
  std::string m_nodeStatistics;
};

#endif  // ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_NODE_HANDLER_H_
