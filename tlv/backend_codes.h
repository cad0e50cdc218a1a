// Record identifiers, cell tags and object types of the back-end exchanges
// the module makes: each number the module puts on the wire, or looks for in
// an answer, is named here and nowhere else.
//
// This header lives in tlv/ and not in performance/ because the host's
// batch-table base (CSnmpTableBase, host/snmpcommon) builds the object
// listing request and reads the listing's control cell itself: the host
// library may include the shared headers of tlv/, never those of
// performance/. One header for both keeps one definition of each number.
//
// The commands looked up by name in the device configuration
// (GET_PERFORMANCE_SWITCH, SET_PERFORMANCE_SWITCH, GET_CUR_STATISTIC_DATA)
// have no fixed identifier: perf::CommandCode (performance/command_code.h)
// reads theirs. Their cells are named here all the same.
//
// The columns of the rows the module answers (tag N = MIB column N) are not
// back-end tags and are not named here.
#ifndef ZERVA_TLV_BACKEND_CODES_H_
#define ZERVA_TLV_BACKEND_CODES_H_

namespace backend {

// --- Record identifiers with a fixed code ------------------------------------

// Object listing: the objects of one type, a page at a time.
const unsigned long long kObjectListingCmd = 0xD0000C000ULL;
// The file-system listing in the back end's own order.
const unsigned long long kPlainListingCmd = 0xD00000000ULL;
// The file-system listing in the order given by kTagListingSort.
const unsigned long long kSortedListingCmd = 0xD00002013ULL;
// The statistics of a batch of LUNs in one exchange.
const unsigned long long kLunBatchStatsCmd = 0xDE0222048ULL;

// --- Cell tags ---------------------------------------------------------------

// Listing request (kObjectListingCmd, kPlainListingCmd, kSortedListingCmd).
enum : unsigned short {
  kTagListingType = 0,   // type 6, 8 bytes: the object type to list
  kTagListingKey = 1,    // text: list the objects after this key (absent: from the first)
  kTagListingSort = 15,  // text: the sort order as JSON, {"sortby":"1 ASC"}
};

// Listing answer: one record per object, then the control record.
enum : unsigned short {
  kTagObjectId = 1,      // text: the object's ID, also the key of the next page
  kTagBondPortName = 2,  // text: the name of a bond port (kObjTypePortBond)
  kTagPortName = 6,      // text: the name of a port of the other port types
  kTagPortStatus = 64,   // number: the port's status
  kTagPortBond = 70,     // text, Ethernet ports only: the bond the port belongs to
  kTagControl = 4095,    // number: 0 = more objects follow, 1 = end of the listing
};

// Switch query answer and switch set request.
enum : unsigned short {
  kTagSwitchState = 0,  // number: 1 = statistics collection on
};

// Statistics requests: GET_CUR_STATISTIC_DATA (one object) and
// kLunBatchStatsCmd (a batch of LUNs).
enum : unsigned short {
  kTagStatsObjectKey = 0,    // text: "<object type>:<object ID>" (one object)
  kTagStatsFlag = 2,         // type 3, 8 bytes: always kStatsFlagValue
  kTagStatsItems = 8,        // text: the item numbers joined by ","
  kTagBatchObjectType = 11,  // type 3, 4 bytes: the object type of the batch
  kTagBatchObjectIds = 12,   // text: the object IDs of the batch joined by ","
};
// The value of kTagStatsFlag, the same in every statistics request.
const unsigned long long kStatsFlagValue = 4;

// Statistics answers.
enum : unsigned short {
  kTagStatsValues = 9,     // text: the values, in item order, joined by ","
  kTagBatchObjectId = 13,  // text: the object a record of a batch answer is for
};

// Capability answer (GET_SNMP_FEATURES, asked by the host's capability
// source): one record per supported feature.
enum : unsigned short {
  kTagFeature = 0,  // type 3, 4 bytes: the feature number (48, 49, 602, ...)
};

// --- Object types --------------------------------------------------------------

enum : unsigned int {
  kObjTypeLun = 11,
  kObjTypeFileSystem = 40,
  kObjTypeController = 207,
  // Front-end ports.
  kObjTypePortEth = 213,
  kObjTypePortFc = 212,
  kObjTypePortFcoe = 252,
  kObjTypePortBond = 235,
  // The controllers' file-protocol services (statistics only, never listed).
  kObjTypeNfsV3 = 1000,
  kObjTypeNfsV4 = 1001,
  kObjTypeNfsV41 = 57636,
  kObjTypeSmbV1 = 1002,
  kObjTypeSmbV2 = 1003,
};

}  // namespace backend

#endif  // ZERVA_TLV_BACKEND_CODES_H_
