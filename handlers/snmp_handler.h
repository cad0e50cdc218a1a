// The handler interface the host routes SNMP requests to, and its two
// framework bases: CSnmpLeafHandler for scalars, CSnmpTableHandler for tables.
//
// Every request operation takes the request context, the decoded request
// package and a response package to fill, and returns 0 on success or a
// non-zero code (0xFFFFFFFF, -1, for the framework's refusals). An operation
// of the wrong kind (a table operation on a scalar, a scalar operation on a
// table) throws CVEM_Exception; an unimplemented one of the right kind
// returns -1 and touches nothing.
#ifndef ZERVA_HANDLERS_SNMP_HANDLER_H_
#define ZERVA_HANDLERS_SNMP_HANDLER_H_

#include "snmpcommon/snmp_context.h"
#include "tlv/vem_message_package.h"

// The framework's refusal code.
enum : int { SNMP_HANDLER_FAILED = -1 };

class CSnmpHandler {
 public:
  virtual ~CSnmpHandler() {}

  virtual int OnQueryLeaf(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                          CTLVPackageV3<TLVMsgHeadV3>& rsp) = 0;
  virtual int OnQueryTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                           CTLVPackageV3<TLVMsgHeadV3>& rsp) = 0;
  virtual int OnSetLeaf(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                        CTLVPackageV3<TLVMsgHeadV3>& rsp) = 0;
  virtual int OnCreateTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                            CTLVPackageV3<TLVMsgHeadV3>& rsp) = 0;
  virtual int OnModifyTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                            CTLVPackageV3<TLVMsgHeadV3>& rsp) = 0;
  virtual int OnDeleteTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                            CTLVPackageV3<TLVMsgHeadV3>& rsp) = 0;

  virtual int strategy() { return 0; }
  // True when every OnQueryTable answers the complete table.
  virtual bool isWholeTable() { return true; }
  virtual int getSnmpOIDVersion() { return 1; }
};

class CSnmpLeafHandler : public CSnmpHandler {
 public:
  // The scalar read path: calls queryLeaf and answers its cell as one record
  // (identifier all ones) holding that cell with tag 0.
  int OnQueryLeaf(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                  CTLVPackageV3<TLVMsgHeadV3>& rsp) override;
  int OnQueryTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                   CTLVPackageV3<TLVMsgHeadV3>& rsp) override;
  int OnSetLeaf(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                CTLVPackageV3<TLVMsgHeadV3>& rsp) override;
  int OnCreateTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                    CTLVPackageV3<TLVMsgHeadV3>& rsp) override;
  int OnModifyTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                    CTLVPackageV3<TLVMsgHeadV3>& rsp) override;
  int OnDeleteTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                    CTLVPackageV3<TLVMsgHeadV3>& rsp) override;

  // The scalar's value: on success returns 0 and sets cell to a new cell
  // that the caller owns. The default refuses (-1) and leaves cell alone.
  virtual int queryLeaf(const CVEM_SnmpContext& ctx, CTLVCell*& cell);
};

class CSnmpTableHandler : public CSnmpHandler {
 public:
  int OnQueryLeaf(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                  CTLVPackageV3<TLVMsgHeadV3>& rsp) override;
  int OnQueryTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                   CTLVPackageV3<TLVMsgHeadV3>& rsp) override;
  int OnSetLeaf(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                CTLVPackageV3<TLVMsgHeadV3>& rsp) override;
  int OnCreateTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                    CTLVPackageV3<TLVMsgHeadV3>& rsp) override;
  int OnModifyTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                    CTLVPackageV3<TLVMsgHeadV3>& rsp) override;
  int OnDeleteTable(const CVEM_SnmpContext& ctx, const CTLVPackageV3<TLVMsgHeadV3>& req,
                    CTLVPackageV3<TLVMsgHeadV3>& rsp) override;
};

#endif  // ZERVA_HANDLERS_SNMP_HANDLER_H_
