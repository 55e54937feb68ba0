#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

// The texts the driver rows are made of, read from and written to plain
// strings: no file is touched here.
namespace gpuvet::platform::sysfs {

// A number as sysfs writes it: hexadecimal digits, "0x" ahead of them allowed,
// one line end behind them allowed, nothing else. nullopt for anything else
// ("0xzz", "0x10de junk", "") and for a value beyond 32 bits.
std::optional<uint32_t> ParseSysfsNumber(const std::string& text);

// "PCI\VEN_%04X&DEV_%04X&SUBSYS_%04X%04X&REV_%02X\ADDRESS", the form of a
// device's PNP id.
std::string PnpDeviceId(uint32_t vendorId, uint32_t deviceId, uint32_t subsystemDevice, uint32_t subsystemVendor,
                        uint32_t revision, const std::string& address);

// The module a module file holds: its file name without ".ko" and a compression
// suffix, with '-' and '_' alike (the kernel shows either for one module).
std::string ModuleNameOfFile(const std::string& path);
std::string NormalizedModuleName(std::string name);

// "YYYYMMDD000000.000000-000", the form in which Windows gives a driver date.
std::string CimDate(int year, int month, int day);
// The CIM date of the UTC calendar day of a moment.
std::optional<std::string> CimDateOfTime(std::time_t moment);

// The kernel's build date as a CIM date, from the text of /proc/sys/kernel/version,
// in any of the forms distributions write: "(2024-02-01)", "Thu Jan 11 14:51:23
// UTC 2024", "Sat, 02 Mar 2024 16:29:23 +0000" or "@1709396963". nullopt when
// none is there, or the date is a build system's placeholder (before 1990).
std::optional<std::string> KernelBuildDate(const std::string& versionText);

}  // namespace gpuvet::platform::sysfs
