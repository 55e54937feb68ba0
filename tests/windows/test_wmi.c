/*
 * gpuvet_test_wmi: an in-process server of the WbemLocator class for the
 * Windows suite, registered in the test's Wine prefix in place of Wine's own.
 * It serves the rows of Win32_VideoController from the file named by
 * GPUVET_TEST_WMI_ROWS, a list of lines:
 *
 *   row              starts the next row; a property it does not name is null
 *   NAME=VALUE       a text property of the last row (UTF-8)
 *   fail STEP        that step fails: create, connect, blanket, query1, query2,
 *                    or noenum (the second query succeeds without an enumerator)
 *
 * Each call of the program under test, and each object freed, goes as one line
 * to the file named by GPUVET_TEST_WMI_LOG.
 */
#define COBJMACROS
#include <windows.h>
#include <objbase.h>
#include <wbemidl.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kMaxRows = 8, kMaxProps = 8, kMaxText = 256 };

struct prop {
  WCHAR name[64];
  WCHAR value[kMaxText];
};
struct row {
  struct prop props[kMaxProps];
  unsigned count;
};

static struct row g_rows[kMaxRows];
static unsigned g_rowCount;
static char g_fail[32];

static void Log(const char* format, ...) {
  const char* path = getenv("GPUVET_TEST_WMI_LOG");
  FILE* file = path ? fopen(path, "a") : NULL;
  if (!file) return;
  va_list args;
  va_start(args, format);
  vfprintf(file, format, args);
  va_end(args);
  fputc('\n', file);
  fclose(file);
}

static void LoadRows(void) {
  const char* path = getenv("GPUVET_TEST_WMI_ROWS");
  FILE* file = path ? fopen(path, "r") : NULL;
  char line[2 * kMaxText];
  g_rowCount = 0;
  g_fail[0] = '\0';
  while (file && fgets(line, sizeof line, file)) {
    line[strcspn(line, "\r\n")] = '\0';
    char* equals = strchr(line, '=');
    if (strcmp(line, "row") == 0 && g_rowCount < kMaxRows) {
      memset(&g_rows[g_rowCount++], 0, sizeof g_rows[0]);
    } else if (strncmp(line, "fail ", 5) == 0) {
      snprintf(g_fail, sizeof g_fail, "%s", line + 5);
    } else if (equals && g_rowCount > 0 && g_rows[g_rowCount - 1].count < kMaxProps) {
      struct prop* prop = &g_rows[g_rowCount - 1].props[g_rows[g_rowCount - 1].count++];
      *equals = '\0';
      MultiByteToWideChar(CP_UTF8, 0, line, -1, prop->name, 64);
      MultiByteToWideChar(CP_UTF8, 0, equals + 1, -1, prop->value, kMaxText);
    }
  }
  if (file) fclose(file);
}

static int Failing(const char* step) {
  return strcmp(g_fail, step) == 0;
}

/* Every object: a vtable, a reference count and what it is. */
struct object {
  void* vtbl;
  LONG refs;
  const char* kind;
  unsigned row; /* the row of a row object; the next row of an enumerator */
};

static HRESULT STDMETHODCALLTYPE NotImplemented(void) {
  return E_NOTIMPL;
}

static ULONG STDMETHODCALLTYPE AddRef(void* self) {
  return (ULONG)InterlockedIncrement(&((struct object*)self)->refs);
}

static ULONG STDMETHODCALLTYPE Release(void* self) {
  struct object* object = self;
  const LONG refs = InterlockedDecrement(&object->refs);
  if (refs == 0) {
    Log("free %s", object->kind);
    free(object);
  }
  return (ULONG)refs;
}

static void* NewObject(void* vtbl, const char* kind, unsigned row) {
  struct object* object = calloc(1, sizeof *object);
  object->vtbl = vtbl;
  object->refs = 1;
  object->kind = kind;
  object->row = row;
  return object;
}

/* Fills a vtable with NotImplemented and the three IUnknown methods. */
static void InitVtbl(void** slots, size_t size, void* queryInterface) {
  for (size_t i = 0; i < size / sizeof(void*); ++i) slots[i] = (void*)NotImplemented;
  slots[0] = queryInterface;
  slots[1] = (void*)AddRef;
  slots[2] = (void*)Release;
}

static IClassFactoryVtbl g_factoryVtbl;
static IWbemLocatorVtbl g_locatorVtbl;
static IWbemServicesVtbl g_servicesVtbl;
static IClientSecurityVtbl g_securityVtbl;
static IEnumWbemClassObjectVtbl g_enumVtbl;
static IWbemClassObjectVtbl g_rowVtbl;

static HRESULT STDMETHODCALLTYPE QueryUnknown(void* self, REFIID iid, void** out) {
  (void)iid;
  AddRef(self);
  *out = self;
  return S_OK;
}

/* The services object answers for IClientSecurity too, as a WMI proxy does. */
static HRESULT STDMETHODCALLTYPE QueryServices(void* self, REFIID iid, void** out) {
  if (IsEqualIID(iid, &IID_IClientSecurity)) {
    *out = NewObject(&g_securityVtbl, "security", 0);
    return S_OK;
  }
  return QueryUnknown(self, iid, out);
}

static HRESULT STDMETHODCALLTYPE SetBlanket(IClientSecurity* self, IUnknown* proxy, DWORD authn, DWORD authz,
                                            OLECHAR* principal, DWORD level, DWORD impersonation, void* info,
                                            DWORD capabilities) {
  (void)self, (void)proxy, (void)principal, (void)info;
  Log("SetBlanket %lu %lu %lu %lu %lu", authn, authz, level, impersonation, capabilities);
  return Failing("blanket") ? E_ACCESSDENIED : S_OK;
}

static HRESULT STDMETHODCALLTYPE Get(IWbemClassObject* self, LPCWSTR name, LONG flags, VARIANT* value,
                                     CIMTYPE* type, LONG* flavor) {
  (void)flags, (void)type, (void)flavor;
  const unsigned index = ((struct object*)self)->row;
  const struct row* row = &g_rows[index];
  Log("Get %u %ls", index, name);
  VariantInit(value);
  V_VT(value) = VT_NULL;
  for (unsigned i = 0; i < row->count; ++i) {
    if (lstrcmpW(row->props[i].name, name) == 0) {
      V_VT(value) = VT_BSTR;
      V_BSTR(value) = SysAllocString(row->props[i].value);
    }
  }
  return S_OK;
}

static HRESULT STDMETHODCALLTYPE Next(IEnumWbemClassObject* self, LONG timeout, ULONG count,
                                      IWbemClassObject** objects, ULONG* returned) {
  struct object* rows = (struct object*)self;
  Log("Next %ld %lu", timeout, count);
  *returned = 0;
  if (rows->row >= g_rowCount) return WBEM_S_FALSE;
  objects[0] = NewObject(&g_rowVtbl, "row", rows->row++);
  *returned = 1;
  return S_OK;
}

static HRESULT STDMETHODCALLTYPE ExecQuery(IWbemServices* self, BSTR language, BSTR query, LONG flags,
                                           IWbemContext* context, IEnumWbemClassObject** rows) {
  (void)self, (void)context;
  const int controllers = wcsstr(query, L"Win32_VideoController") != NULL;
  Log("ExecQuery %ls %ls 0x%lx", language, query, flags);
  *rows = NULL;
  if (Failing(controllers ? "query2" : "query1")) return WBEM_E_FAILED;
  if (controllers && Failing("noenum")) return S_OK;
  *rows = NewObject(&g_enumVtbl, controllers ? "enumerator" : "os enumerator", 0);
  return S_OK;
}

static HRESULT STDMETHODCALLTYPE ConnectServer(IWbemLocator* self, BSTR resource, BSTR user, BSTR password,
                                               BSTR locale, LONG flags, BSTR authority, IWbemContext* context,
                                               IWbemServices** services) {
  (void)self;
  Log("ConnectServer %ls %d%d%d%d %ld %d", resource, user != NULL, password != NULL, locale != NULL,
      authority != NULL, flags, context != NULL);
  *services = NULL;
  if (Failing("connect")) return WBEM_E_ACCESS_DENIED;
  *services = NewObject(&g_servicesVtbl, "services", 0);
  return S_OK;
}

static HRESULT STDMETHODCALLTYPE CreateInstance(IClassFactory* self, IUnknown* outer, REFIID iid, void** out) {
  (void)self, (void)outer;
  LoadRows();
  Log("CreateInstance %d", IsEqualIID(iid, &IID_IWbemLocator));
  *out = NULL;
  if (Failing("create")) return E_FAIL;
  *out = NewObject(&g_locatorVtbl, "locator", 0);
  return S_OK;
}

static HRESULT STDMETHODCALLTYPE LockServer(IClassFactory* self, BOOL lock) {
  (void)self, (void)lock;
  return S_OK;
}

static void InitVtbls(void) {
  InitVtbl((void**)&g_factoryVtbl, sizeof g_factoryVtbl, (void*)QueryUnknown);
  g_factoryVtbl.CreateInstance = CreateInstance;
  g_factoryVtbl.LockServer = LockServer;
  InitVtbl((void**)&g_locatorVtbl, sizeof g_locatorVtbl, (void*)QueryUnknown);
  g_locatorVtbl.ConnectServer = ConnectServer;
  InitVtbl((void**)&g_servicesVtbl, sizeof g_servicesVtbl, (void*)QueryServices);
  g_servicesVtbl.ExecQuery = ExecQuery;
  InitVtbl((void**)&g_securityVtbl, sizeof g_securityVtbl, (void*)QueryUnknown);
  g_securityVtbl.SetBlanket = SetBlanket;
  InitVtbl((void**)&g_enumVtbl, sizeof g_enumVtbl, (void*)QueryUnknown);
  g_enumVtbl.Next = Next;
  InitVtbl((void**)&g_rowVtbl, sizeof g_rowVtbl, (void*)QueryUnknown);
  g_rowVtbl.Get = Get;
}

HRESULT WINAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** out) {
  (void)clsid, (void)iid;
  InitVtbls();
  *out = NewObject(&g_factoryVtbl, "factory", 0);
  return S_OK;
}

HRESULT WINAPI DllCanUnloadNow(void) {
  return S_FALSE;
}
