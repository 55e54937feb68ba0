#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/sysfs_driver_rows.h"

namespace platform::sysfs {
namespace {

namespace fs = std::filesystem;

constexpr const char* kRelease = "6.1.0-18-amd64";
constexpr const char* kKernelVersionIso = "#1 SMP PREEMPT_DYNAMIC Debian 6.1.76-1 (2024-02-01)";
constexpr const char* kKernelBuildDate = "20240201000000.000000-000";
// 2023-12-31 23:30:00 UTC: a time whose local date differs east of Greenwich.
constexpr time_t kLateOnNewYearsEve = 1704065400;
constexpr const char* kLateOnNewYearsEveDate = "20231231000000.000000-000";
// 2024-01-15 12:00:00 UTC.
constexpr time_t kMidJanuary = 1705320000;
constexpr const char* kMidJanuaryDate = "20240115000000.000000-000";

// A machine in a temporary folder: PCI entries, loaded modules, the module tree
// of one kernel release and the kernel's own files.
class DriverRowsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "driver_rows.XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    root_ = pattern;
    roots_ = {root_ + "/pci", root_ + "/module", root_ + "/lib/modules", root_ + "/kernel"};
    fs::create_directories(roots_.pciDevicesDir);
    WriteFile("kernel/osrelease", std::string(kRelease) + "\n");
    WriteFile("kernel/version", std::string(kKernelVersionIso) + "\n");
  }
  void TearDown() override { fs::remove_all(root_); }

  std::string WriteFile(const std::string& relativePath, const std::string& content) const {
    const fs::path path = fs::path(root_) / relativePath;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << content;
    return path.string();
  }

  static void SetModificationTime(const std::string& path, time_t when) {
    const timespec times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }

  // A display adapter with the ids the PNP device id is made of.
  void AddAdapter(const std::string& address, uint32_t vendorId, uint32_t deviceId) const {
    const std::string entry = "pci/" + address + "/";
    WriteFile(entry + "class", "0x030000\n");
    WriteFile(entry + "vendor", Hex(vendorId));
    WriteFile(entry + "device", Hex(deviceId));
  }

  // Binds a driver to the entry; a driver without a module is built into the kernel.
  void BindDriver(const std::string& address, const std::string& driver,
                  const std::optional<std::string>& module) const {
    const fs::path driverDir = fs::path(root_) / "drivers" / driver;
    fs::create_directories(driverDir);
    if (module && !fs::exists(fs::symlink_status(driverDir / "module"))) {
      fs::create_directories(fs::path(roots_.sysModuleDir) / *module);
      fs::create_directory_symlink(fs::path(roots_.sysModuleDir) / *module, driverDir / "module");
    }
    fs::create_directory_symlink(driverDir, fs::path(roots_.pciDevicesDir) / address / "driver");
  }

  std::vector<DriverRow> ReadRows() const {
    std::vector<DriverRow> rows;
    EXPECT_TRUE(ReadDriverRows(roots_, rows));
    return rows;
  }

  DriverRow ReadOnlyRow() const {
    const std::vector<DriverRow> rows = ReadRows();
    EXPECT_EQ(rows.size(), 1U);
    return rows.empty() ? DriverRow{} : rows.front();
  }

  static std::string Hex(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%04x\n", value);
    return text;
  }

  std::string root_;
  DriverRowRoots roots_;
};

TEST_F(DriverRowsTest, RowsFollowTheDisplayAdaptersInAddressOrder) {
  AddAdapter("0000:65:00.0", 0x1002, 0x73bf);
  AddAdapter("0000:01:00.0", 0x10de, 0x2204);
  WriteFile("pci/0000:00:1f.3/class", "0x040300\n");  // audio: no row
  WriteFile("pci/0000:01:00.0/subsystem_vendor", "0x1458\n");
  WriteFile("pci/0000:01:00.0/subsystem_device", "0x403b\n");
  WriteFile("pci/0000:01:00.0/revision", "0xa1\n");

  const std::vector<DriverRow> rows = ReadRows();
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_EQ(rows[0].caption, LookupDeviceName(0x10de, 0x2204));
  EXPECT_EQ(rows[0].pnpDeviceId, "PCI\\VEN_10DE&DEV_2204&SUBSYS_403B1458&REV_A1\\0000:01:00.0");
  // Files that are missing count as 0.
  EXPECT_EQ(rows[1].caption, LookupDeviceName(0x1002, 0x73bf));
  EXPECT_EQ(rows[1].pnpDeviceId, "PCI\\VEN_1002&DEV_73BF&SUBSYS_00000000&REV_00\\0000:65:00.0");
}

TEST_F(DriverRowsTest, NoDriverBoundLeavesVersionAndDateMissing) {
  AddAdapter("0000:01:00.0", 0x10de, 0x2204);
  const DriverRow row = ReadOnlyRow();
  EXPECT_TRUE(row.caption);
  EXPECT_TRUE(row.pnpDeviceId);
  EXPECT_EQ(row.driverVersion, std::nullopt);
  EXPECT_EQ(row.driverDate, std::nullopt);
}

TEST_F(DriverRowsTest, OutOfTreeModuleHasItsOwnVersionAndTheDateOfItsFile) {
  AddAdapter("0000:01:00.0", 0x10de, 0x2204);
  BindDriver("0000:01:00.0", "nvidia", "nvidia");
  WriteFile("module/nvidia/version", "535.154.05\nsecond line\n");
  WriteFile(std::string("lib/modules/") + kRelease + "/modules.dep",
            "kernel/drivers/video/fbdev/core/fb.ko.xz:\n"
            "updates/dkms/nvidia.ko.xz: kernel/drivers/video/fbdev/core/fb.ko.xz\n");
  const std::string moduleFile = WriteFile(std::string("lib/modules/") + kRelease + "/updates/dkms/nvidia.ko.xz", "");
  SetModificationTime(moduleFile, kMidJanuary);

  const DriverRow row = ReadOnlyRow();
  EXPECT_EQ(row.driverVersion, "535.154.05");
  EXPECT_EQ(row.driverDate, kMidJanuaryDate);
}

TEST_F(DriverRowsTest, InTreeModuleHasTheKernelRelease) {
  AddAdapter("0000:03:00.0", 0x1002, 0x73bf);
  BindDriver("0000:03:00.0", "amdgpu", "amdgpu");
  WriteFile(std::string("lib/modules/") + kRelease + "/modules.dep",
            "kernel/drivers/gpu/drm/amd/amdgpu/amdgpu.ko.zst: kernel/drivers/gpu/drm/drm.ko.zst\n");
  const std::string moduleFile =
      WriteFile(std::string("lib/modules/") + kRelease + "/kernel/drivers/gpu/drm/amd/amdgpu/amdgpu.ko.zst", "");
  SetModificationTime(moduleFile, kMidJanuary);

  const DriverRow row = ReadOnlyRow();
  EXPECT_EQ(row.driverVersion, kRelease);
  EXPECT_EQ(row.driverDate, kMidJanuaryDate);
}

TEST_F(DriverRowsTest, BuiltInDriverHasTheKernelReleaseAndBuildDate) {
  AddAdapter("0000:00:02.0", 0x8086, 0x46a6);
  BindDriver("0000:00:02.0", "i915", std::nullopt);
  const DriverRow row = ReadOnlyRow();
  EXPECT_EQ(row.driverVersion, kRelease);
  EXPECT_EQ(row.driverDate, kKernelBuildDate);
}

// The module's name, as sysfs gives it, against the file names of modules.dep.
struct ModuleFileCase {
  const char* module;
  const char* depPath;  // relative to the release folder, or "ABS/..." for an absolute path
};

void PrintTo(const ModuleFileCase& param, std::ostream* out) {
  *out << param.module << " in " << param.depPath;
}

class ModuleFileTest : public DriverRowsTest, public ::testing::WithParamInterface<ModuleFileCase> {};

TEST_P(ModuleFileTest, FindsTheModuleFileAndTakesItsUtcDate) {
  const ModuleFileCase& param = GetParam();
  const std::string depPath = std::string(param.depPath).rfind("ABS/", 0) == 0
                                  ? root_ + "/elsewhere/" + (param.depPath + 4)
                                  : std::string(param.depPath);
  AddAdapter("0000:01:00.0", 0x10de, 0x2204);
  BindDriver("0000:01:00.0", "nvidia-drm", std::string(param.module));
  WriteFile(std::string("lib/modules/") + kRelease + "/modules.dep",
            "kernel/other/nvidia_drmx.ko: kernel/drm.ko\n" + depPath + ": kernel/drm.ko\n");
  const std::string fullPath = depPath.front() == '/' ? depPath : root_ + "/lib/modules/" + kRelease + "/" + depPath;
  fs::create_directories(fs::path(fullPath).parent_path());
  std::ofstream(fullPath).flush();
  SetModificationTime(fullPath, kLateOnNewYearsEve);

  // A zone east of Greenwich: the local date is already the new year.
  const char* savedZone = std::getenv("TZ");
  const std::string zone = savedZone != nullptr ? savedZone : "";
  setenv("TZ", "JST-9", 1);
  tzset();
  const DriverRow row = ReadOnlyRow();
  if (savedZone != nullptr) {
    setenv("TZ", zone.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();

  EXPECT_EQ(row.driverDate, kLateOnNewYearsEveDate);
}

INSTANTIATE_TEST_SUITE_P(
    Names, ModuleFileTest,
    ::testing::Values(ModuleFileCase{"nvidia_drm", "kernel/drivers/nvidia-drm.ko"},
                      ModuleFileCase{"nvidia_drm", "kernel/drivers/nvidia_drm.ko.gz"},
                      ModuleFileCase{"nvidia_drm", "kernel/drivers/nvidia-drm.ko.xz"},
                      ModuleFileCase{"nvidia-drm", "kernel/drivers/nvidia_drm.ko.zst"},
                      ModuleFileCase{"nvidia_drm", "ABS/nvidia-drm.ko"}));

TEST_F(DriverRowsTest, ModuleFileNotFoundFallsBackToTheKernelBuildDate) {
  AddAdapter("0000:01:00.0", 0x10de, 0x2204);
  BindDriver("0000:01:00.0", "nvidia", "nvidia");
  WriteFile("kernel/version", "#1 SMP PREEMPT_DYNAMIC Thu Jan 11 18:26:24 UTC 2024\n");
  // Listed but absent on disk, then not listed at all.
  WriteFile(std::string("lib/modules/") + kRelease + "/modules.dep", "updates/nvidia.ko:\n");
  EXPECT_EQ(ReadOnlyRow().driverDate, "20240111000000.000000-000");
  WriteFile(std::string("lib/modules/") + kRelease + "/modules.dep", "kernel/other.ko:\n");
  EXPECT_EQ(ReadOnlyRow().driverDate, "20240111000000.000000-000");
}

TEST_F(DriverRowsTest, MissingKernelFilesLeaveTheirValuesMissing) {
  AddAdapter("0000:01:00.0", 0x10de, 0x2204);
  BindDriver("0000:01:00.0", "i915", std::nullopt);
  fs::remove(root_ + "/kernel/osrelease");
  fs::remove(root_ + "/kernel/version");
  const DriverRow row = ReadOnlyRow();
  EXPECT_EQ(row.driverVersion, std::nullopt);
  EXPECT_EQ(row.driverDate, std::nullopt);
  EXPECT_TRUE(row.pnpDeviceId);
}

TEST_F(DriverRowsTest, UnreadableDevicesFolderGivesNoRows) {
  std::vector<DriverRow> rows(1);
  roots_.pciDevicesDir = root_ + "/absent";
  EXPECT_FALSE(ReadDriverRows(roots_, rows));
  EXPECT_TRUE(rows.empty());
}

TEST(KernelBuildDateTest, ReadsBothFormsOfTheVersionText) {
  struct Case {
    const char* text;
    std::optional<std::string> date;
  };
  const Case cases[] = {
      {"#1 SMP PREEMPT_DYNAMIC Debian 6.1.76-1 (2024-02-01)", "20240201000000.000000-000"},
      {"#101-Ubuntu SMP PREEMPT_DYNAMIC Tue Nov 14 13:30:08 UTC 2023", "20231114000000.000000-000"},
      {"#1 SMP Sat Mar  2 09:05:01 CET 2019", "20190302000000.000000-000"},
      {"#1 SMP PREEMPT_DYNAMIC @0", std::nullopt},
      {"#1 SMP (2024-13-01)", std::nullopt},
      {"", std::nullopt},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(KernelBuildDate(c.text), c.date) << c.text;
  }
}

}  // namespace
}  // namespace platform::sysfs
