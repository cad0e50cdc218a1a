#include "handlers/snmp_handler.h"

#include <memory>

int CSnmpLeafHandler::OnQueryLeaf(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>&,
                                  CTLVPackageV3<TLVMsgHeadV3>& rsp) {
  CTLVCell* raw = nullptr;
  int result;
  try {
    result = queryLeaf(ctx, raw);
  } catch (...) {
    delete raw;
    throw;
  }
  std::unique_ptr<CTLVCell> cell(raw);
  // The hook's own code is not passed on.
  if (result != 0 || !cell) return SNMP_HANDLER_FAILED;

  // The answer always carries tag 0: keep only the type bits of the tag word.
  cell->setTagWord(static_cast<unsigned short>(cell->tagWord() & 0x000F));
  std::unique_ptr<CTLVRecordV3> record(new CTLVRecordV3(CTLVRecordV3::RESPONSE_ID, CTLVRecordV3::DEFAULT_BUCKETS));
  record->append(cell.release());
  rsp.push_back(record.release());
  return 0;
}

int CSnmpLeafHandler::queryLeaf(const CVEM_SnmpContext&, CTLVCell*&) { return SNMP_HANDLER_FAILED; }

int CSnmpLeafHandler::OnSetLeaf(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>&,
                                CTLVPackageV3<TLVMsgHeadV3>&) {
  return SNMP_HANDLER_FAILED;
}

int CSnmpLeafHandler::OnQueryTable(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>&,
                                   CTLVPackageV3<TLVMsgHeadV3>&) {
  throw CVEM_Exception("CSnmpLeafHandler can't support leaf OnQueryTable!");
}

int CSnmpLeafHandler::OnCreateTable(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>&,
                                    CTLVPackageV3<TLVMsgHeadV3>&) {
  throw CVEM_Exception("CSnmpLeafHandler can't support leaf OnCreateTable!");
}

int CSnmpLeafHandler::OnModifyTable(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>&,
                                    CTLVPackageV3<TLVMsgHeadV3>&) {
  throw CVEM_Exception("CSnmpLeafHandler can't support leaf OnModifyTable!");
}

int CSnmpLeafHandler::OnDeleteTable(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>&,
                                    CTLVPackageV3<TLVMsgHeadV3>&) {
  throw CVEM_Exception("CSnmpLeafHandler can't support leaf OnDeleteTable!");
}

int CSnmpTableHandler::OnQueryLeaf(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>&,
                                   CTLVPackageV3<TLVMsgHeadV3>&) {
  throw CVEM_Exception("CSnmpTableHandler can't support leaf OnQueryLeaf!");
}

int CSnmpTableHandler::OnSetLeaf(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>&,
                                 CTLVPackageV3<TLVMsgHeadV3>&) {
  throw CVEM_Exception("CSnmpTableHandler can't support leaf OnSetLeaf!");
}

int CSnmpTableHandler::OnQueryTable(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>&,
                                    CTLVPackageV3<TLVMsgHeadV3>&) {
  return SNMP_HANDLER_FAILED;
}

int CSnmpTableHandler::OnCreateTable(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>&,
                                     CTLVPackageV3<TLVMsgHeadV3>&) {
  return SNMP_HANDLER_FAILED;
}

int CSnmpTableHandler::OnModifyTable(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>&,
                                     CTLVPackageV3<TLVMsgHeadV3>&) {
  return SNMP_HANDLER_FAILED;
}

int CSnmpTableHandler::OnDeleteTable(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>&,
                                     CTLVPackageV3<TLVMsgHeadV3>&) {
  return SNMP_HANDLER_FAILED;
}
