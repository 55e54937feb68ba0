/*
 * The config file of the test vendor: one statement per line, words split by
 * single blanks; empty lines and lines starting with '#' are skipped.
 *
 *   platform                          starts the next platform
 *   device                            starts the next device of the last platform
 *   info PARAM text VALUE             VALUE runs to the line end, blanks included;
 *                                     escapes: \\ \0 \t \n \r \xHH
 *   info PARAM u32|u64|size NUMBER    a fixed-size value
 *   fault info PARAM CODE SKIP SLEEP  a query of the current device (of the
 *                                     current platform before its first device)
 *   fault device_ids CODE SKIP SLEEP  clGetDeviceIDs of the current platform
 *   fail_platform_list CODE           the vendor offers no platform; the loader
 *                                     then drops it
 *
 * PARAM and NUMBER are C integers (0x1000 or 4096); CODE is a signed decimal.
 * A text value is answered with a closing NUL behind it. CL_DEVICE_PLATFORM is
 * answered for every device unless the file gives it.
 */
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "test_icd.h"

struct parse_state {
  struct icd_config* config;
  cl_platform_id platform;
  cl_device_id device;
  const char* path;
  unsigned line;
};

static int Fail(const struct parse_state* state, const char* what) {
  fprintf(stderr, "gpuvet_test_icd: %s:%u: %s\n", state->path, state->line, what);
  return -1;
}

static int ParseUnsigned(const char* text, unsigned long long* value) {
  char* end = NULL;
  errno = 0;
  *value = strtoull(text, &end, 0);
  return errno == 0 && end != text && *end == '\0' ? 0 : -1;
}

static int ParseSigned(const char* text, long* value) {
  char* end = NULL;
  errno = 0;
  *value = strtol(text, &end, 10);
  return errno == 0 && end != text && *end == '\0' ? 0 : -1;
}

static int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

/* Decodes the escapes of a text value into out, which has room for the text
 * plus its closing NUL; returns the length with that NUL, or 0 on a bad escape. */
static size_t DecodeText(const char* text, unsigned char* out) {
  size_t length = 0;
  for (const char* c = text; *c != '\0'; ++c) {
    if (*c != '\\') {
      out[length++] = (unsigned char)*c;
      continue;
    }
    ++c;
    switch (*c) {
      case '\\': out[length++] = '\\'; break;
      case '0': out[length++] = '\0'; break;
      case 't': out[length++] = '\t'; break;
      case 'n': out[length++] = '\n'; break;
      case 'r': out[length++] = '\r'; break;
      case 'x': {
        int high = HexDigit(c[1]);
        int low = high < 0 ? -1 : HexDigit(c[2]);
        if (low < 0) return 0;
        out[length++] = (unsigned char)(high * 16 + low);
        c += 2;
        break;
      }
      default: return 0;
    }
  }
  out[length++] = '\0';
  return length;
}

static struct icd_info* NewInfo(struct parse_state* state, cl_uint param) {
  struct icd_info* infos = state->device != NULL ? state->device->infos : state->platform->infos;
  unsigned* count = state->device != NULL ? &state->device->infoCount : &state->platform->infoCount;
  for (unsigned i = 0; i < *count; ++i) {
    if (infos[i].param == param) {
      free(infos[i].bytes);
      return &infos[i];
    }
  }
  if (*count == ICD_MAX_INFOS) return NULL;
  struct icd_info* info = &infos[(*count)++];
  info->param = param;
  return info;
}

static int ParseInfo(struct parse_state* state, char* rest) {
  if (state->platform == NULL) return Fail(state, "info before the first platform");
  char* kind = strchr(rest, ' ');
  if (kind == NULL) return Fail(state, "info without a kind");
  *kind++ = '\0';
  char* value = strchr(kind, ' ');
  if (value == NULL) return Fail(state, "info without a value");
  *value++ = '\0';
  unsigned long long param = 0;
  if (ParseUnsigned(rest, &param) != 0) return Fail(state, "bad info parameter");
  struct icd_info* info = NewInfo(state, (cl_uint)param);
  if (info == NULL) return Fail(state, "too many infos");
  if (strcmp(kind, "text") == 0) {
    info->bytes = malloc(strlen(value) + 1);
    info->size = info->bytes == NULL ? 0 : DecodeText(value, info->bytes);
    return info->size == 0 ? Fail(state, "bad text value") : 0;
  }
  unsigned long long number = 0;
  if (ParseUnsigned(value, &number) != 0) return Fail(state, "bad number");
  const cl_uint narrow = (cl_uint)number;
  const cl_ulong wide = (cl_ulong)number;
  const size_t sized = (size_t)number;
  const void* bytes = NULL;
  if (strcmp(kind, "u32") == 0) {
    bytes = &narrow;
    info->size = sizeof narrow;
  } else if (strcmp(kind, "u64") == 0) {
    bytes = &wide;
    info->size = sizeof wide;
  } else if (strcmp(kind, "size") == 0) {
    bytes = &sized;
    info->size = sizeof sized;
  } else {
    return Fail(state, "unknown info kind");
  }
  info->bytes = malloc(info->size);
  if (info->bytes == NULL) return Fail(state, "out of memory");
  memcpy(info->bytes, bytes, info->size);
  return 0;
}

static int ParseFault(struct parse_state* state, char* rest) {
  if (state->platform == NULL) return Fail(state, "fault before the first platform");
  struct icd_fault fault;
  memset(&fault, 0, sizeof fault);
  char* words[5] = {0};
  unsigned count = 0;
  for (char* word = strtok(rest, " "); word != NULL && count < 5; word = strtok(NULL, " ")) {
    words[count++] = word;
  }
  unsigned next = 1;
  if (count == 5 && strcmp(words[0], "info") == 0) {
    unsigned long long param = 0;
    if (ParseUnsigned(words[1], &param) != 0) return Fail(state, "bad fault parameter");
    fault.target = FAULT_INFO;
    fault.param = (cl_uint)param;
    next = 2;
  } else if (count == 4 && strcmp(words[0], "device_ids") == 0) {
    if (state->device != NULL) return Fail(state, "device_ids fault inside a device");
    fault.target = FAULT_DEVICE_IDS;
  } else {
    return Fail(state, "bad fault");
  }
  long code = 0;
  unsigned long long skip = 0;
  unsigned long long sleepSeconds = 0;
  if (ParseSigned(words[next], &code) != 0 || ParseUnsigned(words[next + 1], &skip) != 0 ||
      ParseUnsigned(words[next + 2], &sleepSeconds) != 0) {
    return Fail(state, "bad fault numbers");
  }
  fault.code = (cl_int)code;
  fault.skip = (unsigned)skip;
  fault.sleepSeconds = (unsigned)sleepSeconds;
  struct icd_fault* faults = state->device != NULL ? state->device->faults : state->platform->faults;
  unsigned* faultCount = state->device != NULL ? &state->device->faultCount : &state->platform->faultCount;
  if (*faultCount == ICD_MAX_FAULTS) return Fail(state, "too many faults");
  faults[(*faultCount)++] = fault;
  return 0;
}

static int ParseLine(struct parse_state* state, char* line) {
  struct icd_config* config = state->config;
  if (line[0] == '\0' || line[0] == '#') return 0;
  if (strcmp(line, "platform") == 0) {
    if (config->platformCount == ICD_MAX_PLATFORMS) return Fail(state, "too many platforms");
    state->platform = &config->platforms[config->platformCount];
    state->platform->index = config->platformCount++;
    state->platform->firstDevice = config->deviceCount;
    state->device = NULL;
    return 0;
  }
  if (strcmp(line, "device") == 0) {
    if (state->platform == NULL) return Fail(state, "device before the first platform");
    if (config->deviceCount == ICD_MAX_DEVICES) return Fail(state, "too many devices");
    state->device = &config->devices[config->deviceCount];
    state->device->index = config->deviceCount++;
    state->device->platform = state->platform;
    state->device->referenceCount = 1;
    ++state->platform->deviceCount;
    return 0;
  }
  if (strncmp(line, "info ", 5) == 0) return ParseInfo(state, line + 5);
  if (strncmp(line, "fault ", 6) == 0) return ParseFault(state, line + 6);
  if (strncmp(line, "fail_platform_list ", 19) == 0) {
    long code = 0;
    if (ParseSigned(line + 19, &code) != 0) return Fail(state, "bad code");
    config->failPlatformList = (cl_int)code;
    return 0;
  }
  return Fail(state, "unknown statement");
}

static int AddDevicePlatforms(struct icd_config* config) {
  for (unsigned i = 0; i < config->deviceCount; ++i) {
    cl_device_id device = &config->devices[i];
    int given = 0;
    for (unsigned k = 0; k < device->infoCount; ++k) {
      given |= device->infos[k].param == CL_DEVICE_PLATFORM;
    }
    if (given) continue;
    if (device->infoCount == ICD_MAX_INFOS) return -1;
    struct icd_info* info = &device->infos[device->infoCount++];
    info->param = CL_DEVICE_PLATFORM;
    info->size = sizeof(cl_platform_id);
    info->bytes = malloc(info->size);
    if (info->bytes == NULL) return -1;
    memcpy(info->bytes, &device->platform, info->size);
  }
  return 0;
}

int LoadIcdConfig(const char* path, struct icd_config* config) {
  memset(config, 0, sizeof *config);
  FILE* file = fopen(path, "r");
  if (file == NULL) {
    fprintf(stderr, "gpuvet_test_icd: cannot open %s\n", path);
    return -1;
  }
  struct parse_state state = {config, NULL, NULL, path, 0};
  char* line = NULL;
  size_t capacity = 0;
  ssize_t length = 0;
  int result = 0;
  while (result == 0 && (length = getline(&line, &capacity, file)) >= 0) {
    ++state.line;
    if (length > 0 && line[length - 1] == '\n') line[length - 1] = '\0';
    result = ParseLine(&state, line);
  }
  free(line);
  fclose(file);
  if (result == 0 && AddDevicePlatforms(config) != 0) {
    result = Fail(&state, "too many infos");
  }
  return result;
}
