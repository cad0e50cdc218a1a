// CPerformanceSimpleHandler: the template of the tables that list the objects
// of one type and answer one row of statistic items per object. Concrete
// tables supply the item list, the object types and the row layout.
#ifndef ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_SIMPLE_HANDLER_H_
#define ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_SIMPLE_HANDLER_H_

#include <string>
#include <vector>

#include "performance/snmp_zerva_performance_common.h"

class CPerformanceSimpleHandler : public CSnmpPerformanceCommon {
 public:
  ~CPerformanceSimpleHandler() override {}

  // Lists the objects of type getObjIDForKey(), fetches getStatistics() for
  // each under getObjIDForPerf() and appends one row per object, in listing
  // order. ctx and req are not read. A failure ends the read; rows already
  // appended stay in rsp.
  int OnQueryTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                   CTLVPackageV3<TLVMsgHeadV3>& rsp) override;

  // The comma-separated statistic items of a row.
  virtual std::string getStatistics() = 0;
  // The object type to list.
  virtual unsigned int getObjIDForKey() = 0;
  // The object type to ask statistics for.
  virtual unsigned int getObjIDForPerf() = 0;
  // Appends the cells of one row.
  virtual void fillRspRecord(CTLVRecordV3* row, std::string objectID, std::vector<unsigned int>& values) = 0;
  // False stops the whole read with -1.
  virtual bool checkRspValid(const CTLVRecordV3& record);

 protected:
  // The item list, taken from getStatistics() at the first read with
  // collection on, and kept.
  std::string m_statistics;
};

#endif  // ZERVA_PERFORMANCE_SNMP_ZERVA_PERFORMANCE_SIMPLE_HANDLER_H_
