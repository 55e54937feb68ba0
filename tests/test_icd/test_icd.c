/*
 * gpuvet_test_icd: an OpenCL vendor library for the tests, found by the ICD
 * loader through OCL_ICD_VENDORS. Its platforms and devices come from the file
 * named by GPUVET_TEST_ICD_CONFIG, a list of statements:
 *
 *   platform                     starts the next platform
 *   device                       starts the next device of the last platform
 *   info PARAM HEX               answers a query of the last device (or of the
 *                                platform before its first device): the bytes
 *                                in hex, a text with its closing NUL
 *   fault PARAM CODE SKIP SLEEP  past the first SKIP matching calls, each one
 *                                sleeps and answers CODE (CL_SUCCESS: as usual);
 *                                PARAM 0 on a platform is its clGetDeviceIDs;
 *                                CODE 1001, 1002, 1003 make the call crash,
 *                                abort or exit(0) the way a broken vendor does;
 *                                1004 runs the shell command in
 *                                GPUVET_TEST_ICD_HOOK and then answers
 *   atend WHERE CODE             CODE 1001-1003 once more, while the process
 *                                ends: WHERE is "destructor" (the library's
 *                                own) or "exithandler" (one it registers)
 *
 * Every call of the program under test goes as one line to the file named by
 * GPUVET_TEST_ICD_CALL_LOG; the loader's own queries while it loads the vendor
 * are neither logged nor failed.
 */
#define CL_TARGET_OPENCL_VERSION 300
#include <CL/cl_icd.h>

#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* The dispatch table fixes the signatures; most parameters go unused here. */
#pragma GCC diagnostic ignored "-Wunused-parameter"

/* Fault codes beyond OpenCL's: the call ends the process instead of answering. */
enum { kFaultCrash = 1001, kFaultAbort = 1002, kFaultExitZero = 1003, kFaultRunHook = 1004 };

enum { kMaxPlatforms = 8, kMaxDevices = 160, kMaxInfos = 12, kMaxFaults = 4, kMaxValueSize = 256 };

struct icd_info {
  cl_uint param;
  size_t size;
  unsigned char bytes[kMaxValueSize];
};

struct icd_fault {
  cl_uint param;
  cl_int code;
  unsigned skip, sleepSeconds;
  unsigned calls; /* matching calls seen so far */
};

/* A platform or a device. The loader reads the dispatch table from the first member. */
struct icd_object {
  struct _cl_icd_dispatch* dispatch;
  unsigned index; /* among the objects of its kind, from 0 */
  struct icd_object* platform; /* a device's platform */
  struct icd_info infos[kMaxInfos];
  struct icd_fault faults[kMaxFaults];
  unsigned infoCount, faultCount;
};

struct _cl_platform_id {
  struct icd_object object;
};

struct _cl_device_id {
  struct icd_object object;
};

static struct _cl_icd_dispatch g_dispatch; /* filled in below, once its entries are defined */
static struct _cl_platform_id g_platforms[kMaxPlatforms];
static struct _cl_device_id g_devices[kMaxDevices];
static unsigned g_platformCount, g_deviceCount;
static struct icd_object* g_current; /* where info and fault statements go */
static int g_configLoaded;
static int g_destructorFault, g_exitHandlerFault; /* what the end of the process meets */
/* Set while the loader loads the vendor: it asks each platform for
 * CL_PLATFORM_EXTENSIONS and CL_PLATFORM_ICD_SUFFIX_KHR, and any other call
 * shows that the program under test has taken over. */
static int g_loading;

/* One line a call, appended as the program under test makes it. */
static void AppendCallLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

static void AppendCallLog(const char* format, ...) {
  const char* path = getenv("GPUVET_TEST_ICD_CALL_LOG");
  int fd = path == NULL ? -1 : open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  va_list args;
  va_start(args, format);
  vdprintf(fd, format, args);
  va_end(args);
  close(fd);
}

/* Ends the process the way a broken vendor does, or returns for any other code. */
static void EndTheWay(int code) {
  if (code == kFaultCrash) (void)*(volatile int*)(uintptr_t)8;
  if (code == kFaultAbort) abort();
  if (code == kFaultExitZero) exit(0);
}

static void ExitHandlerFault(void) { EndTheWay(g_exitHandlerFault); }

__attribute__((destructor)) static void DestructorFault(void) { EndTheWay(g_destructorFault); }

static struct icd_info* NewInfo(cl_uint param, size_t size) {
  if (g_current == NULL || g_current->infoCount == kMaxInfos || size > kMaxValueSize) return NULL;
  struct icd_info* info = &g_current->infos[g_current->infoCount++];
  info->param = param;
  info->size = size;
  return info;
}

static int ReadStatement(FILE* file) {
  char word[16];
  char hex[2 * kMaxValueSize + 1];
  struct icd_fault fault = {0, 0, 0, 0, 0};
  if (fscanf(file, "%15s", word) != 1) return 0;
  if (strcmp(word, "platform") == 0 && g_platformCount < kMaxPlatforms) {
    g_current = &g_platforms[g_platformCount].object;
    g_current->dispatch = &g_dispatch;
    g_current->index = g_platformCount++;
    return 1;
  }
  if (strcmp(word, "device") == 0 && g_platformCount > 0 && g_deviceCount < kMaxDevices) {
    cl_platform_id platform = &g_platforms[g_platformCount - 1];
    g_current = &g_devices[g_deviceCount].object;
    g_current->dispatch = &g_dispatch;
    g_current->index = g_deviceCount++;
    g_current->platform = &platform->object;
    struct icd_info* info = NewInfo(CL_DEVICE_PLATFORM, sizeof platform);
    memcpy(info->bytes, &platform, sizeof platform);
    return 1;
  }
  if (strcmp(word, "info") == 0 && fscanf(file, "%x %512s", &fault.param, hex) == 2) {
    struct icd_info* info = NewInfo(fault.param, strlen(hex) / 2);
    for (size_t i = 0; info != NULL && i < info->size; ++i) {
      if (sscanf(hex + 2 * i, "%2hhx", &info->bytes[i]) != 1) return -1;
    }
    return info == NULL ? -1 : 1;
  }
  if (strcmp(word, "atend") == 0 && fscanf(file, "%15s %d", word, &fault.code) == 2) {
    if (strcmp(word, "exithandler") == 0 && atexit(ExitHandlerFault) == 0) g_exitHandlerFault = fault.code;
    if (strcmp(word, "destructor") == 0) g_destructorFault = fault.code;
    return 1;
  }
  if (strcmp(word, "fault") == 0 &&
      fscanf(file, "%x %d %u %u", &fault.param, &fault.code, &fault.skip, &fault.sleepSeconds) == 4 &&
      g_current != NULL && g_current->faultCount < kMaxFaults) {
    g_current->faults[g_current->faultCount++] = fault;
    return 1;
  }
  return -1;
}

static void LoadConfig(void) {
  const char* path = getenv("GPUVET_TEST_ICD_CONFIG");
  FILE* file = path == NULL ? NULL : fopen(path, "r");
  int read = file == NULL ? -1 : 1;
  while (read == 1) read = ReadStatement(file);
  if (file != NULL) fclose(file);
  if (read < 0) {
    fprintf(stderr, "gpuvet_test_icd: no usable config in GPUVET_TEST_ICD_CONFIG (%s)\n", path);
    g_platformCount = 0;
    g_deviceCount = 0;
  }
}

/* The first fault for this query that is past its skip: it sleeps, then gives its code. */
static cl_int ApplyFault(struct icd_object* object, cl_uint param) {
  for (unsigned i = 0; i < object->faultCount; ++i) {
    struct icd_fault* fault = &object->faults[i];
    if (fault->param != param || fault->calls++ < fault->skip) continue;
    if (fault->sleepSeconds > 0) sleep(fault->sleepSeconds);
    EndTheWay(fault->code);
    if (fault->code == kFaultRunHook) return system(getenv("GPUVET_TEST_ICD_HOOK")) == 0 ? CL_SUCCESS : CL_INVALID_VALUE;
    return fault->code;
  }
  return CL_SUCCESS;
}

static const struct icd_info* FindInfo(const struct icd_object* object, cl_uint param) {
  for (unsigned i = 0; i < object->infoCount; ++i) {
    if (object->infos[i].param == param) return &object->infos[i];
  }
  return NULL;
}

static cl_int Answer(const struct icd_object* object, cl_uint param, size_t valueSize, void* value,
                     size_t* valueSizeRet) {
  const struct icd_info* info = FindInfo(object, param);
  if (info == NULL || (value != NULL && valueSize < info->size)) return CL_INVALID_VALUE;
  if (value != NULL) memcpy(value, info->bytes, info->size);
  if (valueSizeRet != NULL) *valueSizeRet = info->size;
  return CL_SUCCESS;
}

static cl_int Query(struct icd_object* object, cl_uint param, size_t valueSize, void* value, size_t* valueSizeRet) {
  cl_int result = ApplyFault(object, param);
  return result != CL_SUCCESS ? result : Answer(object, param, valueSize, value, valueSizeRet);
}

static cl_int CL_API_CALL GetPlatformInfo(cl_platform_id platform, cl_platform_info param, size_t valueSize,
                                          void* value, size_t* valueSizeRet) {
  g_loading = g_loading && (param == CL_PLATFORM_EXTENSIONS || param == CL_PLATFORM_ICD_SUFFIX_KHR);
  if (g_loading) return Answer(&platform->object, param, valueSize, value, valueSizeRet);
  cl_int result = Query(&platform->object, param, valueSize, value, valueSizeRet);
  AppendCallLog("clGetPlatformInfo platform=%u param=0x%04x size=%zu result=%d\n", platform->object.index, param,
                valueSize, result);
  return result;
}

static cl_int CL_API_CALL GetDeviceInfo(cl_device_id device, cl_device_info param, size_t valueSize, void* value,
                                        size_t* valueSizeRet) {
  g_loading = 0;
  cl_int result = Query(&device->object, param, valueSize, value, valueSizeRet);
  AppendCallLog("clGetDeviceInfo device=%u param=0x%04x size=%zu result=%d\n", device->object.index, param, valueSize,
                result);
  return result;
}

static cl_int CL_API_CALL GetDeviceIDs(cl_platform_id platform, cl_device_type type, cl_uint entries,
                                       cl_device_id* devices, cl_uint* deviceCount) {
  g_loading = 0;
  cl_int result = ApplyFault(&platform->object, 0);
  cl_uint found = 0;
  for (unsigned i = 0; result == CL_SUCCESS && i < g_deviceCount; ++i) {
    const struct icd_info* own = FindInfo(&g_devices[i].object, CL_DEVICE_TYPE);
    cl_device_type ownType = 0;
    if (own != NULL && own->size == sizeof ownType) memcpy(&ownType, own->bytes, sizeof ownType);
    if (g_devices[i].object.platform != &platform->object || (type != CL_DEVICE_TYPE_ALL && !(ownType & type))) {
      continue;
    }
    if (devices != NULL && found < entries) devices[found] = &g_devices[i];
    ++found;
  }
  if (result == CL_SUCCESS && found == 0) result = CL_DEVICE_NOT_FOUND;
  if (deviceCount != NULL) *deviceCount = found;
  AppendCallLog("clGetDeviceIDs platform=%u type=0x%llx entries=%u result=%d\n", platform->object.index,
                (unsigned long long)type, entries, result);
  return result;
}

static cl_int CL_API_CALL RetainDevice(cl_device_id device) {
  g_loading = 0;
  AppendCallLog("clRetainDevice device=%u\n", device->object.index);
  return CL_SUCCESS;
}

static cl_int CL_API_CALL ReleaseDevice(cl_device_id device) {
  g_loading = 0;
  AppendCallLog("clReleaseDevice device=%u\n", device->object.index);
  return CL_SUCCESS;
}

/* clinfo probes contexts; this vendor makes none. */
static cl_context RefuseContext(const char* function, cl_int* errcodeRet) {
  g_loading = 0;
  AppendCallLog("%s result=%d\n", function, CL_DEVICE_NOT_AVAILABLE);
  if (errcodeRet != NULL) *errcodeRet = CL_DEVICE_NOT_AVAILABLE;
  return NULL;
}

typedef void(CL_CALLBACK* ContextNotify)(const char*, const void*, size_t, void*);

static cl_context CL_API_CALL CreateContext(const cl_context_properties* properties, cl_uint deviceCount,
                                            const cl_device_id* devices, ContextNotify notify, void* userData,
                                            cl_int* errcodeRet) {
  return RefuseContext("clCreateContext", errcodeRet);
}

static cl_context CL_API_CALL CreateContextFromType(const cl_context_properties* properties, cl_device_type type,
                                                    ContextNotify notify, void* userData, cl_int* errcodeRet) {
  return RefuseContext("clCreateContextFromType", errcodeRet);
}

static cl_int CL_API_CALL IcdGetPlatformIDs(cl_uint entries, cl_platform_id* platforms, cl_uint* platformCount);

static void* CL_API_CALL GetExtensionFunctionAddress(const char* name) {
  return name != NULL && strcmp(name, "clIcdGetPlatformIDsKHR") == 0 ? (void*)&IcdGetPlatformIDs : NULL;
}

static struct _cl_icd_dispatch g_dispatch = {
    .clGetPlatformIDs = IcdGetPlatformIDs,
    .clGetPlatformInfo = GetPlatformInfo,
    .clGetDeviceIDs = GetDeviceIDs,
    .clGetDeviceInfo = GetDeviceInfo,
    .clRetainDevice = RetainDevice,
    .clReleaseDevice = ReleaseDevice,
    .clCreateContext = CreateContext,
    .clCreateContextFromType = CreateContextFromType,
    .clGetExtensionFunctionAddress = GetExtensionFunctionAddress,
};

static cl_int CL_API_CALL IcdGetPlatformIDs(cl_uint entries, cl_platform_id* platforms, cl_uint* platformCount) {
  if (!g_configLoaded) LoadConfig();
  g_configLoaded = 1;
  g_loading = 1;
  for (unsigned i = 0; platforms != NULL && i < g_platformCount && i < entries; ++i) platforms[i] = &g_platforms[i];
  if (platformCount != NULL) *platformCount = g_platformCount;
  return g_platformCount == 0 ? CL_PLATFORM_NOT_FOUND_KHR : CL_SUCCESS;
}

/* The symbols the loader looks up by name. */
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
