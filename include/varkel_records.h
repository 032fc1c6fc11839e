// The data server's records as they travel on the wire, and the view of its
// shared frame buffer. Part of <varkel/varkel.h>.
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the data-server records are little-endian on the wire");

// ---------------------------------------------------------------------------
// Data-server records: exactly 400 bytes each, packed, little-endian.
// ---------------------------------------------------------------------------

enum requestTypesEnum : uint8_t {
  INIT_ARGS = 0,
  ACQUIRE_ARGS = 1,
  ACQUIRE_STATUS = 2,
  SAVE_STATUS = 3,
  ABORT_SAVE = 4,
  STOP_ACQUIRE = 5,
  ARRAY_DATA = 6, // never sent: the frame travels through shared memory
  GEOMETRY = 7,
};

enum OperationTypesEnum : uint8_t { ACK = 0, NAK = 1, DONE = 2, NOT_DONE = 3, ERROR = 4 };

enum returnTypesEnum : uint8_t {
  INVALID_SAVE_PATH = 0,
  INVALID_AQUISITION_MODE = 1,
  INVALID_NUM_OF_ACQUISITIONS = 2,
  INVALID_GEOMETRY_FILE = 3,
};

enum saveModeEnum : uint8_t { NO_SAVE = 0, SAVE_DURING = 1, SAVE_AFTER = 2 };

enum aquisitionModeEnum : uint8_t { B12 = 0, B24 = 1, DUALENERGY = 2 };

#pragma pack(push, 1)
struct simpleArgs {
  uint8_t type;  // request: requestTypesEnum; acknowledgement: ACK or NAK
  uint8_t error; // on a NAK: returnTypesEnum
  uint8_t reserved[398];
};

struct acqArgs {
  uint8_t type; // ACQUIRE_ARGS
  uint64_t noOfAquisitions;
  char savefile[300];
  bool useLFSR;
  uint8_t saveMode;       // saveModeEnum
  uint8_t aquisitionMode; // aquisitionModeEnum
  bool resetRDMABuffer;
  uint16_t bcFramesToProcessPerTime;
  double detectorDistance;
  uint8_t extraDimensions;
  uint8_t DimensionsDepth[5];
  uint8_t reserved[71];
};

struct acqStatusArgs {
  uint8_t type;
  uint64_t noOfFrames[4];
  uint64_t noOfAquisitions[4];
  float bufferUsed[4];
  bool error[4];
  uint64_t lostFrameCnt[4];
  uint8_t done;
  uint64_t savedFrameNum;
  uint64_t savedAquisitionNum;
  uint8_t reserved[266];
};

struct saveStatusArgs {
  uint8_t type; // SAVE_STATUS
  uint8_t done; // DONE or NOT_DONE; anything else is an error
  uint8_t error[4];
  uint64_t savedFrameNum;
  uint64_t savedAquisitionNum;
  uint8_t reserved[378];
};

// "be" is the data server's end of a module's RDMA link, "fe" the detector's.
struct initArgs {
  uint8_t type; // INIT_ARGS
  uint8_t be_gid[4][16];
  uint8_t fe_gid[4][16];
  uint64_t fe_mac[4]; // low 48 bits
  uint64_t be_mac[4]; // low 48 bits
  uint64_t vaddr[4];
  uint32_t rkey[4];
  uint32_t qpn[4];
  uint32_t bufferSize;
  uint8_t reserved[139];
};

struct geometryArgs {
  uint8_t type; // GEOMETRY
  char jsonfile[300];
  uint8_t reserved[99];
};
#pragma pack(pop)

static_assert(sizeof(simpleArgs) == 400 && sizeof(acqArgs) == 400 && sizeof(acqStatusArgs) == 400 &&
                  sizeof(saveStatusArgs) == 400 && sizeof(initArgs) == 400 && sizeof(geometryArgs) == 400,
              "every data-server record is 400 bytes");
static_assert(offsetof(acqArgs, noOfAquisitions) == 1 && offsetof(acqArgs, savefile) == 9 &&
              offsetof(acqArgs, useLFSR) == 309 && offsetof(acqArgs, bcFramesToProcessPerTime) == 313 &&
              offsetof(acqArgs, detectorDistance) == 315 && offsetof(acqArgs, extraDimensions) == 323 &&
              offsetof(acqArgs, DimensionsDepth) == 324 && offsetof(acqArgs, reserved) == 329);
static_assert(offsetof(acqStatusArgs, noOfFrames) == 1 && offsetof(acqStatusArgs, noOfAquisitions) == 33 &&
              offsetof(acqStatusArgs, bufferUsed) == 65 && offsetof(acqStatusArgs, error) == 81 &&
              offsetof(acqStatusArgs, lostFrameCnt) == 85 && offsetof(acqStatusArgs, done) == 117 &&
              offsetof(acqStatusArgs, savedFrameNum) == 118 && offsetof(acqStatusArgs, savedAquisitionNum) == 126 &&
              offsetof(acqStatusArgs, reserved) == 134);
static_assert(offsetof(saveStatusArgs, error) == 2 && offsetof(saveStatusArgs, savedFrameNum) == 6 &&
              offsetof(saveStatusArgs, savedAquisitionNum) == 14 && offsetof(saveStatusArgs, reserved) == 22);
static_assert(offsetof(initArgs, be_gid) == 1 && offsetof(initArgs, fe_gid) == 65 &&
              offsetof(initArgs, fe_mac) == 129 && offsetof(initArgs, be_mac) == 161 &&
              offsetof(initArgs, vaddr) == 193 && offsetof(initArgs, rkey) == 225 && offsetof(initArgs, qpn) == 241 &&
              offsetof(initArgs, bufferSize) == 257 && offsetof(initArgs, reserved) == 261);
static_assert(offsetof(geometryArgs, jsonfile) == 1 && offsetof(geometryArgs, reserved) == 301);

// View of the data server's shared frame buffer.
struct array_data {
  pthread_mutex_t* mutex; // not used by the library
  int32_t* sample_frame;  // start of the mapped segment
};
