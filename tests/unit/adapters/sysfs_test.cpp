// The PCI display adapters and their driver rows, read from a machine laid out
// in a temporary folder the way sysfs, the module tree and the kernel show it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/driver_row_text.h"
#include "platform/linux/sysfs_driver_rows.h"

namespace gpuvet::platform::sysfs {
namespace {

namespace fs = std::filesystem;

constexpr const char* kAddress = "0000:01:00.0";
constexpr const char* kRelease = "6.1.0-18-amd64";
constexpr const char* kKernelBuildDate = "20240201000000.000000-000";
// 2023-12-31 23:30:00 UTC: east of Greenwich the local date is already the new year.
constexpr time_t kLateOnNewYearsEve = 1704065400;
constexpr const char* kNewYearsEveDate = "20231231000000.000000-000";

class SysfsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "gpuvet_sysfs.XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    root_ = pattern;
    roots_ = {root_ + "/bus", root_ + "/module", root_ + "/lib", root_ + "/kernel"};
    fs::create_directories(roots_.pciDevicesDir);
    Write("kernel/osrelease", std::string(kRelease) + "\n");
    Write("kernel/version", "#1 SMP PREEMPT_DYNAMIC Debian 6.1.76-1 (2024-02-01)\n");
  }
  void TearDown() override { fs::remove_all(root_); }

  std::string Write(const std::string& relative, const std::string& content) const {
    const fs::path path = fs::path(root_) / relative;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << content;
    return path.string();
  }

  // An entry under the devices tree, linked from the bus folder as sysfs does.
  void AddEntry(const std::string& address, const char* classCode, const char* vendor, const char* device) const {
    Write("devices/" + address + "/class", classCode);
    Write("devices/" + address + "/vendor", vendor);
    Write("devices/" + address + "/device", device);
    fs::create_directory_symlink(root_ + "/devices/" + address, roots_.pciDevicesDir + "/" + address);
  }

  // Read east of Greenwich, where a local date of a file would differ from its UTC date.
  std::vector<DriverRow> ReadRows() const {
    setenv("TZ", "JST-9", 1);
    tzset();
    std::vector<DriverRow> rows;
    EXPECT_TRUE(ReadDriverRows(roots_, rows));
    unsetenv("TZ");
    tzset();
    return rows;
  }

  std::string root_;
  DriverRowRoots roots_;
};

// Entries with an unreadable file are passed over, with one line each in the
// list and quietly in the rows; missing subsystem and revision files count as 0.
TEST_F(SysfsTest, ListsDisplayClassesInAddressOrderWithTheirRows) {
  AddEntry("0000:65:00.0", "0x030200\n", "0x10de\n", "0x1b80\n");  // 3D controller
  AddEntry("0000:00:02.0", "0x030000\n", "0x8086\n", "0x3e92\n");  // VGA
  AddEntry("0000:00:1f.3", "0x040300\n", "0x8086\n", "0xa348\n");  // audio
  AddEntry("0000:04:00.0", "0x038000\n", "0x1002\n", "0x15d8\n");  // other display
  AddEntry("0000:05:00.0", "", "0x10de\n", "0x1b80\n");
  AddEntry("0000:06:00.0", "0x030000\n", "0x10de junk\n", "0x1b80\n");
  AddEntry("0000:07:00.0", "0x030000\n", "0x10de\n", "0x1ffffffff\n");
  Write("devices/0000:00:02.0/subsystem_vendor", "0x1458\n");
  Write("devices/0000:00:02.0/subsystem_device", "0x403b\n");
  Write("devices/0000:00:02.0/revision", "0xa1\n");
  std::vector<std::string> skips;
  const auto devices = ListDisplayDevices(roots_.pciDevicesDir, [&skips](const std::string& line) {
    skips.push_back(line);
  });
  ASSERT_TRUE(devices.has_value());
  ASSERT_EQ(devices->size(), 3u);
  EXPECT_EQ((*devices)[0].address, "0000:00:02.0");
  EXPECT_EQ((*devices)[1].address, "0000:04:00.0");
  EXPECT_EQ((*devices)[2].name, "GP104 [GeForce GTX 1080]");
  EXPECT_EQ(LookupDeviceName(0x1234, 0xfff0), "Device fff0");
  EXPECT_EQ(ClipDeviceName(std::string(200, 'n')), std::string(127, 'n'));
  EXPECT_EQ(skips, (std::vector<std::string>{"skipping 0000:05:00.0: class unreadable",
                                             "skipping 0000:06:00.0: vendor unreadable",
                                             "skipping 0000:07:00.0: device unreadable"}));

  const std::vector<DriverRow> rows = ReadRows();
  ASSERT_EQ(rows.size(), 3U);
  EXPECT_EQ(rows[2].caption, "GP104 [GeForce GTX 1080]");
  EXPECT_EQ(rows[0].pnpDeviceId, "PCI\\VEN_8086&DEV_3E92&SUBSYS_403B1458&REV_A1\\0000:00:02.0");
  EXPECT_EQ(rows[2].pnpDeviceId, "PCI\\VEN_10DE&DEV_1B80&SUBSYS_00000000&REV_00\\0000:65:00.0");
}

TEST_F(SysfsTest, UnreadableBusFolderGivesNoListAndNoRows) {
  roots_.pciDevicesDir = root_ + "/absent";
  EXPECT_FALSE(ListDisplayDevices(roots_.pciDevicesDir, [](const std::string&) {}).has_value());
  std::vector<DriverRow> rows(1);
  EXPECT_FALSE(ReadDriverRows(roots_, rows));
  EXPECT_TRUE(rows.empty());
}

// The driver bound to the adapter at kAddress, and the version and date its row shows.
struct DriverCase {
  const char* what;
  const char* module;         // nullptr: no driver bound; "": a driver built into the kernel
  const char* moduleVersion;  // the loaded module's version file; nullptr: none
  const char* moduleFile;     // as modules.dep lists it
  bool moduleFileExists;      // made with kLateOnNewYearsEve as its time
  std::optional<std::string> version;
  std::optional<std::string> date;
};

void PrintTo(const DriverCase& param, std::ostream* out) {
  *out << param.what;
}

class DriverRowTest : public SysfsTest, public ::testing::WithParamInterface<DriverCase> {
 protected:
  void BindDriver(const std::string& module) const {
    const std::string driverDir = root_ + "/drivers/driver";
    fs::create_directories(driverDir);
    if (!module.empty()) {
      fs::create_directories(roots_.sysModuleDir + "/" + module);
      fs::create_directory_symlink(roots_.sysModuleDir + "/" + module, driverDir + "/module");
    }
    fs::create_directory_symlink(driverDir, roots_.pciDevicesDir + "/" + kAddress + "/driver");
  }
};

TEST_P(DriverRowTest, TakesVersionAndDateFromTheBoundDriver) {
  const DriverCase& param = GetParam();
  AddEntry(kAddress, "0x030000\n", "0x10de\n", "0x2204\n");
  if (param.module != nullptr) {
    BindDriver(param.module);
  }
  if (param.moduleVersion != nullptr) {
    Write(std::string("module/") + param.module + "/version", param.moduleVersion);
  }
  const std::string releaseDir = std::string("lib/") + kRelease + "/";
  // A name that only starts like the module's comes first.
  Write(releaseDir + "modules.dep",
        "kernel/nvidia_drmx.ko: kernel/drm.ko\n" + std::string(param.moduleFile) + ": kernel/drm.ko\n");
  if (param.moduleFileExists) {
    const std::string path = Write(releaseDir + param.moduleFile, "");
    const timespec times[2] = {{kLateOnNewYearsEve, 0}, {kLateOnNewYearsEve, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }
  const std::vector<DriverRow> rows = ReadRows();
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_EQ(rows[0].driverVersion, param.version);
  EXPECT_EQ(rows[0].driverDate, param.date);
}

INSTANTIATE_TEST_SUITE_P(
    Drivers, DriverRowTest,
    ::testing::Values(
        DriverCase{"no driver", nullptr, nullptr, "x.ko", false, std::nullopt, std::nullopt},
        DriverCase{"module with a version file", "nvidia", "535.154.05\nsecond line\n", "updates/dkms/nvidia.ko.xz",
                   true, "535.154.05", kNewYearsEveDate},
        DriverCase{"in-tree module", "amdgpu", nullptr, "kernel/drivers/gpu/drm/amd/amdgpu/amdgpu.ko.zst", true,
                   kRelease, kNewYearsEveDate},
        DriverCase{"built-in driver", "", nullptr, "x.ko", false, kRelease, kKernelBuildDate},
        DriverCase{"module file not on disk", "nvidia", nullptr, "updates/nvidia.ko", false, kRelease,
                   kKernelBuildDate},
        DriverCase{"module with _, file with -", "nvidia_drm", nullptr, "kernel/nvidia-drm.ko", true, kRelease,
                   kNewYearsEveDate},
        DriverCase{"module with -, file with _", "nvidia-drm", nullptr, "kernel/nvidia_drm.ko.zst", true, kRelease,
                   kNewYearsEveDate},
        DriverCase{".ko.gz", "nvidia_drm", nullptr, "kernel/nvidia_drm.ko.gz", true, kRelease, kNewYearsEveDate}));

TEST_F(DriverRowTest, MissingKernelFilesLeaveTheirValuesMissing) {
  AddEntry(kAddress, "0x030000\n", "0x10de\n", "0x2204\n");
  BindDriver("");
  fs::remove(root_ + "/kernel/osrelease");
  fs::remove(root_ + "/kernel/version");
  const std::vector<DriverRow> rows = ReadRows();
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_EQ(rows[0].driverVersion, std::nullopt);
  EXPECT_EQ(rows[0].driverDate, std::nullopt);
}

// A kernel whose version text tells no date is dated by its built-in module list.
TEST_F(DriverRowTest, BuiltInDriverOfAnUndatedKernelTakesTheBuiltInListsDate) {
  AddEntry(kAddress, "0x030000\n", "0x10de\n", "0x2204\n");
  BindDriver("");
  Write("kernel/version", "#1 SMP PREEMPT_DYNAMIC @0\n");
  const std::string builtIn = Write(std::string("lib/") + kRelease + "/modules.builtin", "");
  const timespec times[2] = {{kLateOnNewYearsEve, 0}, {kLateOnNewYearsEve, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, builtIn.c_str(), times, 0), 0);
  const std::vector<DriverRow> rows = ReadRows();
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_EQ(rows[0].driverDate, kNewYearsEveDate);
}

TEST(DriverRowTextTest, ReadsSysfsNumbersWhole) {
  const std::pair<const char*, std::optional<uint32_t>> cases[] = {
      {"0x10de\n", 0x10de}, {"0x030000", 0x030000}, {"10DE\n", 0x10de},  {"0xffffffff\n", 0xffffffffu},
      {"0x1ffffffff\n", std::nullopt}, {"0xzz\n", std::nullopt}, {"0x10de junk\n", std::nullopt},
      {"", std::nullopt}, {"0x\n", std::nullopt}, {" 0x10de\n", std::nullopt}, {"0x10de\n\n", std::nullopt},
      {"-0x1\n", std::nullopt},
  };
  for (const auto& [text, number] : cases) {
    EXPECT_EQ(ParseSysfsNumber(text), number) << text;
  }
}

// The whole version text of real kernels: Debian, Ubuntu, Fedora, Arch, and
// reproducible builds, which write seconds or a pinned clock.
TEST(DriverRowTextTest, ReadsEveryFormOfTheKernelBuildDate) {
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"#1 SMP PREEMPT_DYNAMIC Debian 6.1.76-1 (2024-02-01)", "20240201000000.000000-000"},
      {"#101-Ubuntu SMP PREEMPT_DYNAMIC Tue Nov 14 13:30:08 UTC 2023", "20231114000000.000000-000"},
      {"#1 SMP PREEMPT_DYNAMIC Thu Jan 11 14:51:23 UTC 2024", "20240111000000.000000-000"},
      {"#1 SMP Sat Mar  2 09:05:01 CET 2019", "20190302000000.000000-000"},
      {"#1 SMP PREEMPT_DYNAMIC Sat, 02 Mar 2024 16:29:23 +0000", "20240302000000.000000-000"},
      {"#1 SMP PREEMPT_DYNAMIC @1709396963", "20240302000000.000000-000"},
      {"#1-NixOS SMP PREEMPT_DYNAMIC Tue Jan  1 00:00:00 UTC 1980", std::nullopt},
      {"#1 SMP PREEMPT_DYNAMIC @0", std::nullopt},
      {"#1 SMP (2024-13-01)", std::nullopt},
      {"#1 SMP PREEMPT_DYNAMIC", std::nullopt},
  };
  for (const auto& [text, date] : cases) {
    EXPECT_EQ(KernelBuildDate(text), date) << text;
  }
}

TEST(DriverRowTextTest, NamesModulesAndDevicesAsTheRowsShowThem) {
  EXPECT_EQ(ModuleNameOfFile("kernel/drivers/gpu/drm/nvidia-drm.ko.zst"), "nvidia_drm");
  EXPECT_EQ(ModuleNameOfFile("/abs/amdgpu.ko"), "amdgpu");
  EXPECT_EQ(ModuleNameOfFile("i915.ko.gz.bak"), "i915.ko.gz.bak");
  EXPECT_EQ(PnpDeviceId(0x10de, 0x1b80, 0x119e, 0x10de, 0xa1, "0000:65:00.0"),
            "PCI\\VEN_10DE&DEV_1B80&SUBSYS_119E10DE&REV_A1\\0000:65:00.0");
}

}  // namespace
}  // namespace gpuvet::platform::sysfs
