/* The platforms, devices and faults of the test vendor, as its config file gives them. */
#ifndef GPUVET_TEST_ICD_H
#define GPUVET_TEST_ICD_H

#define CL_TARGET_OPENCL_VERSION 300
#include <CL/cl_icd.h>

enum { ICD_MAX_PLATFORMS = 8, ICD_MAX_DEVICES = 32, ICD_MAX_INFOS = 128, ICD_MAX_FAULTS = 8 };

/* One answer to a query: the bytes the query copies out. */
struct icd_info {
  cl_uint param;
  size_t size;
  unsigned char* bytes;
};

enum icd_fault_target { FAULT_INFO, FAULT_DEVICE_IDS };

/* A call that sleeps and then fails: the first `skip` matching calls pass,
 * every later one sleeps `sleepSeconds` and returns `code` (CL_SUCCESS: it
 * only sleeps and then answers as usual). */
struct icd_fault {
  enum icd_fault_target target;
  cl_uint param; /* FAULT_INFO only */
  cl_int code;
  unsigned skip;
  unsigned sleepSeconds;
  unsigned calls; /* matching calls seen so far */
};

/* Objects handed to the loader carry the dispatch table as their first member. */
struct _cl_platform_id {
  struct _cl_icd_dispatch* dispatch;
  unsigned index;
  unsigned firstDevice;
  unsigned deviceCount;
  struct icd_info infos[ICD_MAX_INFOS];
  unsigned infoCount;
  struct icd_fault faults[ICD_MAX_FAULTS];
  unsigned faultCount;
};

struct _cl_device_id {
  struct _cl_icd_dispatch* dispatch;
  unsigned index; /* position among all devices of the config, from 0 */
  cl_platform_id platform;
  int referenceCount;
  struct icd_info infos[ICD_MAX_INFOS];
  unsigned infoCount;
  struct icd_fault faults[ICD_MAX_FAULTS];
  unsigned faultCount;
};

struct icd_config {
  struct _cl_platform_id platforms[ICD_MAX_PLATFORMS];
  unsigned platformCount;
  struct _cl_device_id devices[ICD_MAX_DEVICES];
  unsigned deviceCount;
  cl_int failPlatformList; /* CL_SUCCESS, or what the vendor's platform list answers */
};

/* Reads the config file; 0 on success, else -1 after a message on stderr. */
int LoadIcdConfig(const char* path, struct icd_config* config);

#endif
