/*
 * gpuvet_test_icd: an OpenCL vendor library for the tests.
 *
 * The ICD loader finds it through OCL_ICD_VENDORS. Its platforms and devices
 * come from the file named by GPUVET_TEST_ICD_CONFIG (format in config.c), which
 * can also make chosen calls fail or sleep. Every call that the program under
 * test makes is appended as one line to the file named by
 * GPUVET_TEST_ICD_CALL_LOG, when that variable is set; the loader's own calls
 * while it loads the vendor are neither logged nor ever failed.
 *
 * Only the queries a census and clinfo make are implemented; every other entry
 * of the dispatch table is left empty.
 */
#include "test_icd.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static struct _cl_icd_dispatch g_dispatch;
static void FillIcdDispatch(struct _cl_icd_dispatch* dispatch);
static struct icd_config g_config;
static int g_configLoaded;

/* While the loader loads the vendor it asks each platform for
 * CL_PLATFORM_EXTENSIONS and CL_PLATFORM_ICD_SUFFIX_KHR, once for the size and
 * once for the value. Those calls belong to the loader until any other call
 * arrives. */
enum { kLoaderCallsPerQuery = 2 };
static int g_loading;
static unsigned g_loaderExtensionCalls[ICD_MAX_PLATFORMS];
static unsigned g_loaderSuffixCalls[ICD_MAX_PLATFORMS];

static void AppendCallLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

static void AppendCallLog(const char* format, ...) {
  const char* path = getenv("GPUVET_TEST_ICD_CALL_LOG");
  if (path == NULL || path[0] == '\0') {
    return;
  }
  char line[512];
  va_list args;
  va_start(args, format);
  int length = vsnprintf(line, sizeof line - 1, format, args);
  va_end(args);
  if (length < 0) {
    return;
  }
  if ((size_t)length > sizeof line - 2) {
    length = (int)(sizeof line - 2);
  }
  line[length] = '\n';
  /* One write per line on an O_APPEND descriptor: lines of several processes
   * never interleave. */
  int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) {
    return;
  }
  ssize_t written = write(fd, line, (size_t)length + 1);
  (void)written;
  close(fd);
}

static void EnsureConfig(void) {
  if (g_configLoaded) {
    return;
  }
  g_configLoaded = 1;
  FillIcdDispatch(&g_dispatch);
  const char* path = getenv("GPUVET_TEST_ICD_CONFIG");
  if (path == NULL || LoadIcdConfig(path, &g_config) != 0) {
    fprintf(stderr, "gpuvet_test_icd: no usable config in GPUVET_TEST_ICD_CONFIG (%s)\n",
            path == NULL ? "unset" : path);
    memset(&g_config, 0, sizeof g_config);
    g_config.failPlatformList = CL_PLATFORM_NOT_FOUND_KHR;
  }
  for (unsigned i = 0; i < g_config.platformCount; ++i) {
    g_config.platforms[i].dispatch = &g_dispatch;
  }
  for (unsigned i = 0; i < g_config.deviceCount; ++i) {
    g_config.devices[i].dispatch = &g_dispatch;
  }
}

static int IsLoaderCall(cl_platform_id platform, cl_platform_info param) {
  if (!g_loading) {
    return 0;
  }
  unsigned* seen = NULL;
  if (param == CL_PLATFORM_EXTENSIONS) {
    seen = &g_loaderExtensionCalls[platform->index];
  } else if (param == CL_PLATFORM_ICD_SUFFIX_KHR) {
    seen = &g_loaderSuffixCalls[platform->index];
  }
  if (seen == NULL || *seen >= kLoaderCallsPerQuery) {
    g_loading = 0;
    return 0;
  }
  ++*seen;
  return 1;
}

/* Applies the first fault that targets this call: it sleeps, then gives its
 * code (CL_SUCCESS when it only delays). */
static cl_int ApplyFaults(struct icd_fault* faults, unsigned count, enum icd_fault_target target, cl_uint param) {
  for (unsigned i = 0; i < count; ++i) {
    struct icd_fault* fault = &faults[i];
    if (fault->target != target || (target == FAULT_INFO && fault->param != param)) {
      continue;
    }
    unsigned call = fault->calls++;
    if (call < fault->skip) {
      continue;
    }
    if (fault->sleepSeconds > 0) {
      sleep(fault->sleepSeconds);
    }
    return fault->code;
  }
  return CL_SUCCESS;
}

static cl_int AnswerInfo(const struct icd_info* infos, unsigned count, cl_uint param, size_t valueSize, void* value,
                         size_t* valueSizeRet) {
  for (unsigned i = 0; i < count; ++i) {
    if (infos[i].param != param) {
      continue;
    }
    if (value != NULL) {
      if (valueSize < infos[i].size) {
        return CL_INVALID_VALUE;
      }
      memcpy(value, infos[i].bytes, infos[i].size);
    }
    if (valueSizeRet != NULL) {
      *valueSizeRet = infos[i].size;
    }
    return CL_SUCCESS;
  }
  return CL_INVALID_VALUE;
}

static int IsKnownPlatform(cl_platform_id platform) {
  return platform != NULL && platform >= g_config.platforms && platform < g_config.platforms + g_config.platformCount;
}

static int IsKnownDevice(cl_device_id device) {
  return device != NULL && device >= g_config.devices && device < g_config.devices + g_config.deviceCount;
}

static cl_int CL_API_CALL GetPlatformInfo(cl_platform_id platform, cl_platform_info param, size_t valueSize,
                                          void* value, size_t* valueSizeRet) {
  if (!IsKnownPlatform(platform)) {
    AppendCallLog("clGetPlatformInfo platform=? param=0x%04x size=%zu result=%d", param, valueSize,
                  CL_INVALID_PLATFORM);
    return CL_INVALID_PLATFORM;
  }
  if (IsLoaderCall(platform, param)) {
    return AnswerInfo(platform->infos, platform->infoCount, param, valueSize, value, valueSizeRet);
  }
  cl_int result = ApplyFaults(platform->faults, platform->faultCount, FAULT_INFO, param);
  if (result == CL_SUCCESS) {
    result = AnswerInfo(platform->infos, platform->infoCount, param, valueSize, value, valueSizeRet);
  }
  AppendCallLog("clGetPlatformInfo platform=%u param=0x%04x size=%zu result=%d", platform->index, param, valueSize,
                result);
  return result;
}

static int DeviceHasType(const struct _cl_device_id* device, cl_device_type type) {
  cl_device_type own = 0;
  for (unsigned i = 0; i < device->infoCount; ++i) {
    if (device->infos[i].param == CL_DEVICE_TYPE && device->infos[i].size == sizeof own) {
      memcpy(&own, device->infos[i].bytes, sizeof own);
    }
  }
  return type == CL_DEVICE_TYPE_ALL || (own & type) != 0;
}

static cl_int CL_API_CALL GetDeviceIDs(cl_platform_id platform, cl_device_type type, cl_uint entries,
                                       cl_device_id* devices, cl_uint* deviceCount) {
  g_loading = 0;
  if (!IsKnownPlatform(platform)) {
    AppendCallLog("clGetDeviceIDs platform=? type=0x%llx entries=%u result=%d", (unsigned long long)type, entries,
                  CL_INVALID_PLATFORM);
    return CL_INVALID_PLATFORM;
  }
  cl_int result = ApplyFaults(platform->faults, platform->faultCount, FAULT_DEVICE_IDS, 0);
  cl_uint found = 0;
  if (result == CL_SUCCESS) {
    for (unsigned i = 0; i < platform->deviceCount; ++i) {
      cl_device_id device = &g_config.devices[platform->firstDevice + i];
      if (!DeviceHasType(device, type)) {
        continue;
      }
      if (devices != NULL && found < entries) {
        devices[found] = device;
      }
      ++found;
    }
    if (found == 0) {
      result = CL_DEVICE_NOT_FOUND;
    }
  }
  if (deviceCount != NULL) {
    *deviceCount = found;
  }
  AppendCallLog("clGetDeviceIDs platform=%u type=0x%llx entries=%u result=%d", platform->index,
                (unsigned long long)type, entries, result);
  return result;
}

static cl_int CL_API_CALL GetDeviceInfo(cl_device_id device, cl_device_info param, size_t valueSize, void* value,
                                        size_t* valueSizeRet) {
  g_loading = 0;
  if (!IsKnownDevice(device)) {
    AppendCallLog("clGetDeviceInfo device=? param=0x%04x size=%zu result=%d", param, valueSize, CL_INVALID_DEVICE);
    return CL_INVALID_DEVICE;
  }
  cl_int result = ApplyFaults(device->faults, device->faultCount, FAULT_INFO, param);
  if (result == CL_SUCCESS) {
    result = AnswerInfo(device->infos, device->infoCount, param, valueSize, value, valueSizeRet);
  }
  AppendCallLog("clGetDeviceInfo device=%u param=0x%04x size=%zu result=%d", device->index, param, valueSize,
                result);
  return result;
}

static cl_int CL_API_CALL RetainDevice(cl_device_id device) {
  g_loading = 0;
  if (!IsKnownDevice(device)) {
    AppendCallLog("clRetainDevice device=? result=%d", CL_INVALID_DEVICE);
    return CL_INVALID_DEVICE;
  }
  ++device->referenceCount;
  AppendCallLog("clRetainDevice device=%u refcount=%d", device->index, device->referenceCount);
  return CL_SUCCESS;
}

static cl_int CL_API_CALL ReleaseDevice(cl_device_id device) {
  g_loading = 0;
  if (!IsKnownDevice(device)) {
    AppendCallLog("clReleaseDevice device=? result=%d", CL_INVALID_DEVICE);
    return CL_INVALID_DEVICE;
  }
  --device->referenceCount;
  AppendCallLog("clReleaseDevice device=%u refcount=%d", device->index, device->referenceCount);
  return CL_SUCCESS;
}

/* clinfo probes contexts; this vendor makes none. */
static cl_context CL_API_CALL CreateContext(const cl_context_properties* properties, cl_uint deviceCount,
                                            const cl_device_id* devices,
                                            void(CL_CALLBACK* notify)(const char*, const void*, size_t, void*),
                                            void* userData, cl_int* errcodeRet) {
  (void)properties;
  (void)devices;
  (void)notify;
  (void)userData;
  g_loading = 0;
  AppendCallLog("clCreateContext devices=%u result=%d", deviceCount, CL_DEVICE_NOT_AVAILABLE);
  if (errcodeRet != NULL) {
    *errcodeRet = CL_DEVICE_NOT_AVAILABLE;
  }
  return NULL;
}

static cl_context CL_API_CALL CreateContextFromType(const cl_context_properties* properties, cl_device_type type,
                                                    void(CL_CALLBACK* notify)(const char*, const void*, size_t,
                                                                              void*),
                                                    void* userData, cl_int* errcodeRet) {
  (void)properties;
  (void)notify;
  (void)userData;
  g_loading = 0;
  AppendCallLog("clCreateContextFromType type=0x%llx result=%d", (unsigned long long)type, CL_DEVICE_NOT_AVAILABLE);
  if (errcodeRet != NULL) {
    *errcodeRet = CL_DEVICE_NOT_AVAILABLE;
  }
  return NULL;
}

static cl_int CL_API_CALL IcdGetPlatformIDs(cl_uint entries, cl_platform_id* platforms, cl_uint* platformCount) {
  EnsureConfig();
  g_loading = 1;
  if (g_config.failPlatformList != CL_SUCCESS) {
    if (platformCount != NULL) {
      *platformCount = 0;
    }
    return g_config.failPlatformList;
  }
  if (platforms != NULL) {
    for (unsigned i = 0; i < g_config.platformCount && i < entries; ++i) {
      platforms[i] = &g_config.platforms[i];
    }
  }
  if (platformCount != NULL) {
    *platformCount = g_config.platformCount;
  }
  return g_config.platformCount == 0 ? CL_PLATFORM_NOT_FOUND_KHR : CL_SUCCESS;
}

static void* CL_API_CALL GetExtensionFunctionAddress(const char* name) {
  if (name != NULL && strcmp(name, "clIcdGetPlatformIDsKHR") == 0) {
    return (void*)&IcdGetPlatformIDs;
  }
  return NULL;
}

static void* CL_API_CALL GetExtensionFunctionAddressForPlatform(cl_platform_id platform, const char* name) {
  (void)platform;
  return GetExtensionFunctionAddress(name);
}

static void FillIcdDispatch(struct _cl_icd_dispatch* dispatch) {
  memset(dispatch, 0, sizeof *dispatch);
  dispatch->clGetPlatformIDs = IcdGetPlatformIDs;
  dispatch->clGetPlatformInfo = GetPlatformInfo;
  dispatch->clGetDeviceIDs = GetDeviceIDs;
  dispatch->clGetDeviceInfo = GetDeviceInfo;
  dispatch->clRetainDevice = RetainDevice;
  dispatch->clReleaseDevice = ReleaseDevice;
  dispatch->clCreateContext = CreateContext;
  dispatch->clCreateContextFromType = CreateContextFromType;
  dispatch->clGetExtensionFunctionAddress = GetExtensionFunctionAddress;
  dispatch->clGetExtensionFunctionAddressForPlatform = GetExtensionFunctionAddressForPlatform;
}

/* The three symbols the loader looks up by name. */
CL_API_ENTRY cl_int CL_API_CALL clIcdGetPlatformIDsKHR(cl_uint entries, cl_platform_id* platforms,
                                                       cl_uint* platformCount) {
  return IcdGetPlatformIDs(entries, platforms, platformCount);
}

CL_API_ENTRY void* CL_API_CALL clGetExtensionFunctionAddress(const char* name) {
  return GetExtensionFunctionAddress(name);
}

CL_API_ENTRY cl_int CL_API_CALL clGetPlatformInfo(cl_platform_id platform, cl_platform_info param, size_t valueSize,
                                                  void* value, size_t* valueSizeRet) {
  return GetPlatformInfo(platform, param, valueSize, value, valueSizeRet);
}
