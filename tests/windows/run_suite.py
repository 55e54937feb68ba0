#!/usr/bin/env python3
"""The Windows suite: the real gpuvet.exe under Wine on fixture machines.

Each session gets a private Wine prefix, cloned from one made once, with its
own wineserver kept up while it runs. A fixture machine is: display adapters
as SetupAPI registry entries beside Wine's own adapter, the driver rows from the
test WbemLocator server (or Wine's own WMI), and the project's test ICD as the
only OpenCL vendor. Output is compared with its "\\r\\n" turned into "\\n".
"""
import argparse
import concurrent.futures
import contextlib
import json
import os
import re
import select
import shutil
import struct
import subprocess
import sys
import time

FILE_SHARE_READ, FILE_SHARE_WRITE, FILE_SHARE_DELETE = 1, 2, 4
SHARE_ALL = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE
HOLD_WAIT_SECONDS = 30  # a bound for the harness, not a measurement
WBEM_LOCATOR = "{4590F811-1D3A-11D0-891F-00AA004B2E24}"
DISPLAY_CLASS = "{4d36e968-e325-11ce-bfc1-08002be10318}"

NVIDIA = ("VEN_10DE&DEV_1B80&SUBSYS_119E10DE&REV_A1\\4&2A4F5D5B&0&0008", "NVIDIA GeForce GTX 1080")
RADEON = ("VEN_1002&DEV_67DF&SUBSYS_00000000&REV_00\\4&1&0&0010", "Radeon RX 580")
NVIDIA_ROW = {"Caption": "NVIDIA GeForce GTX 1080", "PNPDeviceID": "PCI\\VEN_10DE&DEV_1B80\\X",
              "DriverVersion": "31.0.15.1234", "DriverDate": "20230105000000.000000-000"}
OLD_NVIDIA_ROW = dict(NVIDIA_ROW, DriverDate="20150105000000.000000-000")
# Found by its PNP id alone, with null driver values.
RADEON_ROW = {"PNPDeviceID": "PCI\\VEN_1002&DEV_67DF\\Y"}

ICD_ABORT = 1002  # the test ICD's fault code that aborts the process
GTX_DEVICE = {"vendor": 0x10DE, "name": "NVIDIA GeForce GTX 1080", "version": "OpenCL 3.0 CUDA",
              "driver": "535.1", "c_version": "OpenCL C 1.2"}

LIST_ITEM = """<Item><VID>4318</VID><DeviceName>NVIDIA GeForce GTX 1080</DeviceName>
<OpenCLCVersion>OpenCL C 1.2</OpenCLCVersion><DeviceVersion>OpenCL 3.0 CUDA</DeviceVersion>
<DriverVersion>{driver}</DriverVersion></Item>"""
LISTS = {
    "white_ok": "<WhiteList>" + LIST_ITEM.format(driver="470") + "</WhiteList>",
    "white_refuses": "<WhiteList>" + LIST_ITEM.format(driver="999") + "</WhiteList>",
    "black_hit": "<BlackList>" + LIST_ITEM.format(driver="535.1") + "</BlackList>",
}

# A run: arguments, rows (None: as the session had them), ICD config, expected
# status at the Linux parent, lines the output must hold in this order.
# Sessions group runs that share a fixture machine.


def icd_config(platforms):
    """The test ICD's statements for platforms, each a list of devices (dicts)."""
    def text(param, value):
        return "info %x %s\n" % (param, (value.encode() + b"\0").hex())
    out = ""
    for devices in platforms:
        out += "platform\n" + text(0x900, "FULL_PROFILE") + text(0x901, "OpenCL 3.0 test") + \
            text(0x902, "gpuvet test") + text(0x903, "gpuvet") + text(0x904, "cl_khr_icd") + text(0x920, "TEST")
        for device in devices:
            out += "device\n" + "info 1000 %s\n" % struct.pack("<Q", 4).hex() + \
                "info 1001 %s\n" % struct.pack("<I", device["vendor"]).hex() + \
                text(0x102B, device["name"]) + text(0x102F, device["version"]) + \
                text(0x102D, device["driver"]) + text(0x103D, device["c_version"]) + text(0x1030, "")
            out += "".join("fault %x %d 0 %d\n" % fault for fault in device.get("faults", []))
    return out


def rows_text(rows, fail=None):
    out = "fail %s\n" % fail if fail else ""
    for row in rows:
        out += "row\n" + "".join("%s=%s\n" % item for item in row.items())
    return out


def reg_text(adapters, wmi_dll):
    lines = ["Windows Registry Editor Version 5.00", ""]
    for number, (key, name) in enumerate(adapters, 1):
        hardware_id = "PCI\\" + key.split("\\")[0]
        multi_sz = ",".join("%02x" % b for b in (hardware_id + "\0\0").encode("utf-16-le"))
        lines += ["[HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Enum\\PCI\\%s]" % key,
                  '"ClassGUID"="%s"' % DISPLAY_CLASS, '"Class"="Display"', '"HardwareID"=hex(7):' + multi_sz,
                  '"DeviceDesc"="%s"' % name, '"Driver"="%s\\\\%04d"' % (DISPLAY_CLASS, number), ""]
    if wmi_dll:
        lines += ["[HKEY_LOCAL_MACHINE\\Software\\Classes\\CLSID\\%s\\InprocServer32]" % WBEM_LOCATOR,
                  '@="%s"' % windows_path(wmi_dll).replace("\\", "\\\\"), '"ThreadingModel"="Both"', ""]
    return "\r\n".join(lines).encode("utf-16")  # with its byte-order mark


def windows_path(path):
    return "Z:" + os.path.abspath(path).replace("/", "\\")


class Session:
    """A fixture machine: a cloned prefix with its wineserver up."""

    def __init__(self, suite, name, adapters, wmi=True):
        self.suite, self.dir = suite, os.path.join(suite.work, name)
        shutil.rmtree(self.dir, ignore_errors=True)
        os.makedirs(self.dir)
        self.prefix = os.path.join(self.dir, "prefix")
        subprocess.run(["cp", "-al", suite.template, self.prefix], check=True)
        for reg in ("system.reg", "user.reg", "userdef.reg"):  # written by Wine: real copies
            os.remove(os.path.join(self.prefix, reg))
            shutil.copy(os.path.join(suite.template, reg), self.prefix)
        vendors = os.path.join(self.dir, "vendors")
        os.makedirs(vendors)
        self.write("vendors/gpuvet_test.icd", os.path.abspath(suite.test_icd) + "\n")
        self.env = dict(os.environ, WINEPREFIX=self.prefix, WINEDEBUG="-all", LANG="C.UTF-8",
                        OCL_ICD_VENDORS=vendors, OCL_ICD_PLATFORM_SORT="none",
                        GPUVET_TEST_ICD_CONFIG=self.path("icd.conf"),
                        GPUVET_TEST_WMI_ROWS=windows_path(self.path("rows.txt")),
                        GPUVET_TEST_WMI_LOG=windows_path(self.path("wmi.log")))
        subprocess.run(["wineserver", "-p"], env=self.env, check=True)
        # Wine rebuilds its display devices as the session starts: the fixture goes in after that.
        self.write("fixture.reg", reg_text(adapters, suite.wmi_dll if wmi else None))
        subprocess.run(["wine", "regedit", "/S", windows_path(self.path("fixture.reg"))], env=self.env, check=True)

    def path(self, name):
        return os.path.join(self.dir, name)

    def drive_c(self, name):
        return os.path.join(self.prefix, "drive_c", name)

    def write(self, name, content):
        with open(self.path(name), "wb") as file:
            file.write(content if isinstance(content, bytes) else content.encode())

    def run(self, args, rows=None, fail=None, icd=(), timeout=30, exe=None):
        self.write("rows.txt", rows_text(rows or [], fail))
        self.write("icd.conf", icd_config(icd))
        started = time.monotonic()
        done = subprocess.run(["wine", exe or self.suite.exe] + args, env=self.env, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, timeout=timeout)
        return done.returncode, done.stdout.decode("utf-8", "surrogateescape").replace("\r\n", "\n"), \
            time.monotonic() - started

    @contextlib.contextmanager
    def holding(self, pattern, share, first=None):
        """Another process of the machine (hold_file.c) opens and holds the files that match the pattern while the
        block runs, the first one named before it starts; the block gets the list of the files it held."""
        holder = subprocess.Popen(["wine", self.suite.hold_file, pattern, "%x" % share], env=self.env,
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        caught = []
        try:
            # Line by line, never up to the end: the session keeps the pipe open.
            while first and "caught " + first not in caught:
                if not select.select([holder.stdout], [], [], HOLD_WAIT_SECONDS)[0]:
                    raise RuntimeError("%s was never held" % first)
                caught.append(holder.stdout.readline().decode().strip())
            yield caught
        finally:
            holder.stdin.write(b"\n")
            holder.stdin.close()
            caught += iter(lambda: holder.stdout.readline().decode().strip(), "done")
            holder.wait(timeout=30)

    def close(self):
        subprocess.run(["wineserver", "-k"], env=self.env)
        shutil.rmtree(self.dir, ignore_errors=True)


def expect(failures, what, status, output, want_status, lines, absent=()):
    if status != want_status:
        failures.append("%s: status %d, expected %d\n%s" % (what, status, want_status, output))
        return
    at = 0
    for line in lines:
        found = output.find(line, at)
        if found < 0:
            failures.append("%s: missing (in order) %r\n%s" % (what, line, output))
            return
        at = found + len(line)
    for text in absent:
        if text in output:
            failures.append("%s: unexpected %r\n%s" % (what, text, output))


ADAPTER_LINES = (
    "   Wine Adapter, device_id :0x0, vendor_id:0x0  ver:  date:2012\n"
    "   Radeon RX 580, device_id :0x67DF, vendor_id:0x1002  ver:  date:\n"
    "   NVIDIA GeForce GTX 1080, device_id :0x1B80, vendor_id:0x10DE  ver:31.0.15.1234  "
    "date:20230105000000.000000-000\n")


def session_machine(suite, failures):
    """Adapters, rows, the command line and the result file on one machine."""
    machine = Session(suite, "machine", [NVIDIA, RADEON])
    try:
        rows = [NVIDIA_ROW, RADEON_ROW]
        status, output, _ = machine.run(["--GPU", "9"], rows)
        expect(failures, "adapters and rows", status, output, 246, [
            "name[NVIDIA GeForce GTX 1080]  id[PCI\\VEN_10DE&DEV_1B80\\X] target[Wine Adapter][DEV_0]\n"
            "name[]  id[PCI\\VEN_1002&DEV_67DF\\Y] target[Wine Adapter][DEV_0]\n"
            "name[NVIDIA GeForce GTX 1080]  id[PCI\\VEN_10DE&DEV_1B80\\X] target[Radeon RX 580][DEV_67DF]\n"
            "name[]  id[PCI\\VEN_1002&DEV_67DF\\Y] target[Radeon RX 580][DEV_67DF]\n"
            "Found id! name[]  id[PCI\\VEN_1002&DEV_67DF\\Y] ver[]  date[]\n"
            "name[NVIDIA GeForce GTX 1080]  id[PCI\\VEN_10DE&DEV_1B80\\X] target[NVIDIA GeForce GTX 1080][DEV_1B80]\n"
            "Found id! name[NVIDIA GeForce GTX 1080]  id[PCI\\VEN_10DE&DEV_1B80\\X] ver[31.0.15.1234]  "
            "date[20230105000000.000000-000]\n" + ADAPTER_LINES + "\nAdapter: 9\nerror  index [9] infos.size[3]\n"])
        # Each lookup reads a row's name and id, its driver values only once it fits, and no row after that.
        calls = [line for line in open(machine.path("wmi.log")).read().splitlines()
                 if line not in ("free factory", "free security")]
        want = []
        for fitting_row in (None, 1, 0):  # Wine Adapter, Radeon RX 580, NVIDIA GeForce GTX 1080
            want += ["CreateInstance 1", "ConnectServer ROOT\\CIMV2 0000 0 0", "SetBlanket 10 0 3 3 0",
                     "ExecQuery WQL SELECT * FROM Win32_OperatingSystem 0x30", "free os enumerator",
                     "ExecQuery WQL SELECT * FROM Win32_VideoController 0x30"]
            for row in range(len(rows)):
                want += ["Next -1 1", "Get %d Caption" % row, "Get %d PNPDeviceID" % row]
                if row == fitting_row:
                    want += ["Get %d DriverVersion" % row, "Get %d DriverDate" % row, "free row"]
                    break
                want += ["free row"]
            else:
                want += ["Next -1 1"]
            want += ["free services", "free locator", "free enumerator"]
        if calls != want:
            failures.append("the COM sequence:\n%s\nexpected:\n%s" % ("\n".join(calls), "\n".join(want)))

        # Command line: names in any case, values taken as the wide calls give them.
        for args, want_status, lines in [
            (["--HeLp", "--NOTEST"], 255, ["gpuvet.exe\ngpuvet.exe [--notest] [--details] [--blankrun] "
                                           "[--recheck] [--result][--help]\nno test!\n"]),
            (["--gpu", "99999999999"], 246, ["error  index [2147483647] infos.size[3]\n"]),
            (["--gpu", " -99999999999x", "--notest"], 255, ["no test!\n"]),
            (["--help", "--whitelist"], 24, ["gpuvet.exe [--notest]", "_invalid_parameter\n"]),
            (["--notest", "--result"], 24, ["_invalid_parameter\n"]),
            (["--gpu", "9", "--result", "C:\\r\u0100x"], 246, ["error  index [9]"]),
        ]:
            status, output, _ = machine.run(args, rows)
            expect(failures, "command line %s" % args, status, output, want_status, lines, ["no test!"] *
                   (want_status == 24))

        # The stored verdict, in a directory named with "é" (one byte 0xE9) and
        # one cut at the first character beyond U+00FF.
        for directory, given in [("dé", "C:\\dé"), ("cut", "C:\\cut\u0100more")]:
            os.makedirs(machine.drive_c(directory))
            args = ["--gpu", "2", "--result", given]
            status, output, _ = machine.run(args, rows, icd=[[GTX_DEVICE]])
            # Path values are narrowed byte for byte: "é" is printed as the one byte 0xE9.
            path = "C:\\" + directory.replace("é", "\udce9") + "\\gpuvet.json"
            expect(failures, "first run " + directory, status, output, 0, [
                "parse failed: %s [-1]\n" % path, "gpuvet end(ok)\n", '"checkResult": 0', "file:%s\n" % path])
            if not os.path.exists(machine.drive_c(directory + "/gpuvet.json")):
                failures.append("no result file in " + directory)
            status, output, _ = machine.run(args, rows)
            expect(failures, "second run " + directory, status, output, 0, ["Find result in config. 0\n"],
                   ["gpuvet begin"])
    finally:
        machine.close()


def session_wmi_failures(suite, failures):
    machine = Session(suite, "wmi_failures", [NVIDIA])
    try:
        for step in ["create", "connect", "blanket", "query1", "query2", "noenum"]:
            status, output, _ = machine.run(["--gpu", "1"], [NVIDIA_ROW], fail=step, icd=[[GTX_DEVICE]])
            expect(failures, "WMI failure at " + step, status, output, 13, [
                "   Wine Adapter, device_id :0x0, vendor_id:0x0  ver:  date:2012\n"
                "   NVIDIA GeForce GTX 1080, device_id :0x1B80, vendor_id:0x10DE  ver:  date:2012\n",
                "driver is before 2018!\n"], ["name["])
        log = open(machine.path("wmi.log")).read()
        # Every object the lookups made is gone again: two lookups (two adapters) a step.
        for kind in ["locator", "services", "enumerator", "os enumerator"]:
            made = log.count("free " + kind + "\n")
            if made != {"locator": 10, "services": 8, "enumerator": 0, "os enumerator": 4}[kind]:
                failures.append("WMI failures: %s freed %d times\n%s" % (kind, made, log))
    finally:
        machine.close()


def without_handles(output):
    """The platform handle is a pointer of the process that asked: a replay prints the recorded one."""
    return re.sub(r"platform\[(\d+), [^\]]*\]", r"platform[\1, P]", output)


def native(args):
    done = subprocess.run(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=30)
    return done.returncode, done.stdout.decode("utf-8", "surrogateescape")


def expect_same_run(failures, what, live, replayed):
    if replayed[0] != live[0] or without_handles(replayed[1]) != without_handles(live[1]):
        failures.append("%s: status %d, the live run %d\n--- replayed\n%s--- live\n%s" % (
            what, replayed[0], live[0], replayed[1], live[1]))


def expect_snapshot_gives_the_same_run(suite, failures, machine, args, live, row, icd):
    """gpuvet-lists.exe's snapshot of the machine, replayed by gpuvet-lists.exe and by the native
    gpuvet-lists with the same arguments, gives the live run's status and lines."""
    snapshot = machine.drive_c("snapshot.json")
    with contextlib.suppress(FileNotFoundError):
        os.remove(snapshot)
    status, output, _ = machine.run(["snapshot", "-o", "C:\\snapshot.json"], [row], icd=icd, exe=suite.lists_exe)
    if status != 0 or not os.path.exists(snapshot):
        failures.append("snapshot under Wine: status %d\n%s" % (status, output))
        return
    status, output, _ = machine.run(["verdict", "--snapshot", "C:\\snapshot.json"] + args, [row], icd=icd,
                                    exe=suite.lists_exe)
    expect_same_run(failures, "verdict --snapshot under Wine %r" % args, live, (status, output))
    native_args = [machine.drive_c(arg[3:].replace("\\", "/")) if arg.startswith("C:\\") else arg for arg in args]
    expect_same_run(failures, "native verdict over the snapshot taken under Wine %r" % args, live,
                    native([suite.native_lists, "verdict", "--snapshot", snapshot] + native_args))


def session_verdicts(suite, failures):
    machine = Session(suite, "verdicts", [NVIDIA])
    try:
        for name, content in LISTS.items():
            os.makedirs(machine.drive_c("lists"), exist_ok=True)
            with open(machine.drive_c("lists/%s.xml" % name), "w") as file:
                file.write(content)
        for lists, row, icd, want_status, last in [
            (["--whitelist", "C:\\lists\\white_ok.xml"], NVIDIA_ROW, [[GTX_DEVICE]], 0, "gpuvet end(ok)\n"),
            (["--whitelist", "C:\\lists\\white_refuses.xml"], NVIDIA_ROW, [[GTX_DEVICE]], 11, "not in whitelist!\n"),
            (["--whitelist", "C:\\lists\\white_refuses.xml"], OLD_NVIDIA_ROW, [[GTX_DEVICE]], 12,
             "not in whitelist!\n& driver is before 2018!\n"),
            ([], OLD_NVIDIA_ROW, [[GTX_DEVICE]], 13, "driver is before 2018!\n"),
            (["--blacklist", "C:\\lists\\black_hit.xml"], NVIDIA_ROW, [[GTX_DEVICE]], 245, "in blacklist!\n"),
            ([], NVIDIA_ROW, [], 246, "num_platforms: 0\nno platform!\n"),
        ]:
            status, output, _ = machine.run(["--gpu", "1"] + lists, [row], icd=icd)
            expect(failures, "verdict %d" % want_status, status, output, want_status, [
                "check---dx[NVIDIA GeForce GTX 1080][7040], cl[NVIDIA GeForce GTX 1080]" if icd else "", last])
            expect_snapshot_gives_the_same_run(suite, failures, machine, ["--gpu", "1"] + lists, (status, output),
                                               row, icd)
    finally:
        machine.close()


def session_fleet_examples(suite, failures):
    """The other way round: machines recorded in the format the native tool reads and writes."""
    machine = Session(suite, "fleet_examples", [NVIDIA])
    try:
        examples = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples")
        shutil.copytree(examples, machine.drive_c("examples"), dirs_exist_ok=True)
        for name in sorted(os.listdir(os.path.join(examples, "fleet"))):
            if not name.endswith(".json"):
                continue
            args = ["--gpu", "1", "--blacklist", "blacklist.xml", "--whitelist", "whitelist.xml"]
            folder = os.path.join(examples, "fleet", "..")
            live = native([suite.native_lists, "verdict", "--snapshot", os.path.join(examples, "fleet", name)] +
                          [os.path.join(folder, arg) if arg.endswith(".xml") else arg for arg in args])
            status, output, _ = machine.run(["verdict", "--snapshot", "C:\\examples\\fleet\\" + name] +
                                            ["C:\\examples\\" + arg if arg.endswith(".xml") else arg
                                             for arg in args], exe=suite.lists_exe)
            expect_same_run(failures, "verdict under Wine over examples/fleet/" + name, live, (status, output))
    finally:
        machine.close()


def session_watchdog_and_wine_wmi(suite, failures):
    machine = Session(suite, "wine_wmi", [], wmi=False)
    try:
        status, output, _ = machine.run(["--gpu", "0"], icd=[[GTX_DEVICE]])
        expect(failures, "Wine's own WMI", status, output, 246, [
            "Found id! name[VideoController1]", "ver[30.0.14023.3004]  date[20220118000000.000000-000]\n",
            "   Wine Adapter, device_id :0x0, vendor_id:0x0  ver:30.0.14023.3004  "
            "date:20220118000000.000000-000\n", "check platforms end\n\n\n no platform!\n"])
        slow = dict(GTX_DEVICE, faults=[(0x102B, 0, 12)])
        status, output, seconds = machine.run(["--gpu", "0"], icd=[[slow]])
        expect(failures, "watchdog", status, output, 11, ["Timeout exit:  GPUVET_NOT_IN_WHITELIST\n"],
               ["gpuvet end"])
        if not 8.5 < seconds < 11.5:
            failures.append("watchdog: the run took %.1f s" % seconds)
    finally:
        machine.close()


RACED_SAVES = 6
WINE_REPLACE = re.compile(r"rf\w+\.tmp$")
# Names in the result folder that no dead run of gpuvet left: never removed.
PLANTED = ("gpuvet.json.tmp-not-a-run", "gpuvet.json.tmp-999998-1-0")


def session_save(suite, failures):
    """Every path of the save: the first one, a replace, a replace beside a process that holds the file."""
    machine = Session(suite, "save", [NVIDIA])
    try:
        folder = machine.drive_c("r")
        os.makedirs(os.path.join(folder, PLANTED[1]))  # a folder named like a dead run's file
        for name in (PLANTED[0], "gpuvet.json.tmp-999999-1-0"):
            open(os.path.join(folder, name), "w").close()
        target = os.path.join(folder, "gpuvet.json")

        def save(driver, what):
            status, output, _ = machine.run(["--gpu", "1", "--recheck", "1", "--result", "C:\\r"], [NVIDIA_ROW],
                                            icd=[[dict(GTX_DEVICE, driver=driver)]])
            expect(failures, what, status, output, 0, ["gpuvet end(ok)\n", "file:C:\\r\\gpuvet.json\n"])
            # Wine's ReplaceFileW leaves an "rfXXXX.tmp" of its own while a reader holds the old file.
            others = set(os.listdir(folder)) - {"gpuvet.json"}
            if not set(PLANTED) <= others or [name for name in others - set(PLANTED) if not WINE_REPLACE.match(name)]:
                failures.append("%s: the folder holds %s" % (what, sorted(others)))

        save("535.1", "first save")
        document = json.load(open(target))
        document["Host"] = {"keep": [1, "two"]}
        with open(target, "w") as file:
            json.dump(document, file)
        save("536.2", "replace")
        document = json.load(open(target))
        if document.get("Host") != {"keep": [1, "two"]} or \
                document.get("GpuVet", {}).get("Adapters", [{}])[-1].get("clDrvVersion") != "536.2":
            failures.append("replace: the file holds %r" % document)

        # A reader that lets others delete does not stop the replace; one that does not keeps the old file whole.
        with machine.holding("C:\\r\\gpuvet.json", SHARE_ALL, "gpuvet.json"):
            save("537.3", "replace beside a sharing reader")
        if '"537.3"' not in open(target).read():
            failures.append("replace beside a sharing reader: the old content stands")
        before = open(target, "rb").read()
        with machine.holding("C:\\r\\gpuvet.json", FILE_SHARE_READ, "gpuvet.json"):
            save("538.4", "replace beside a reader that does not share deletion")
        if open(target, "rb").read() != before:
            failures.append("replace beside a reader that does not share deletion: the file changed")

        # A reader that keeps trying never gets hold of a temporary file, which would hold up its replace.
        with machine.holding("C:\\r\\gpuvet.json.tmp-*", FILE_SHARE_READ | FILE_SHARE_WRITE) as caught:
            for run in range(RACED_SAVES):
                save("540.%d" % run, "save %d beside a reader that retries" % run)
        caught = [line for line in caught if line.split(" ", 1)[-1] not in PLANTED]
        if caught or '"540.%d"' % (RACED_SAVES - 1) not in open(target).read():
            failures.append("saves beside a reader that retries: it caught %s" % caught)
    finally:
        machine.close()


def session_guard(suite, failures):
    """The ends of the process that the tool did not choose: never a pass, never a crash."""
    machine = Session(suite, "guard", [NVIDIA])
    try:
        # Through Wine's OpenCL bridge a native vendor's abort arrives as an exception that can't be continued. (A
        # native crash comes back as the call's error code, and a native exit ends the Unix process itself: neither
        # reaches the Windows side.)
        aborts = dict(GTX_DEVICE, faults=[(0x102B, ICD_ABORT, 0)])
        status, output, _ = machine.run(["--gpu", "1"], [NVIDIA_ROW], icd=[[aborts]])
        expect(failures, "a vendor that aborts", status, output, 11, ["gpuvet begin\n", "\nexception: 0x"],
               ["gpuvet end"])
        # The process layer as gpuvet sets it up, ended from inside: a fault that a catch-all block must not
        # swallow, an abort, an exit, and a pure virtual call.
        for mode, want_status, want_output in [
            ("fault", 11, "exception: 0xC0000005\n"),
            ("abort", 11, "exception: abort\n"),
            ("exit", 11, "exception: exit from inside the run\n"),
            ("purecall", 23, "In _purecall_handler.\n"),
        ]:
            done = subprocess.run(["wine", suite.guard_probe, mode], env=machine.env, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, timeout=30)
            output = done.stdout.decode(errors="replace").replace("\r\n", "\n")
            if (done.returncode, output) != (want_status, want_output):
                failures.append("%s: status %d, output %r, expected %d, %r\n%s" % (
                    mode, done.returncode, output, want_status, want_output, done.stderr.decode()[-2000:]))
    finally:
        machine.close()


SECRET = "s3cr3t-of-another-service"
NOBODY = 65534


def session_hostile_folder(suite, failures):
    """Links planted in or as the result folder are never followed: nothing of their targets reaches the log, and
    the targets stay as they were. Wine shows a Unix link as a plain file or folder (a link to a folder shows as
    a reparse point by its path only), so these are the links that Wine lets the tests plant."""
    machine = Session(suite, "hostile", [NVIDIA])
    try:
        secret, private = machine.drive_c("secret"), machine.drive_c("secret/private.txt")
        os.makedirs(machine.drive_c("lists"))
        with open(machine.drive_c("lists/black_hit.xml"), "w") as file:
            file.write(LISTS["black_hit"])
        args = ["--gpu", "1", "--result"]
        # Another service's folder: a stored refusal that a run through a link would answer with, and more.
        os.makedirs(secret)
        status, output, _ = machine.run(args + ["C:\\secret", "--blacklist", "C:\\lists\\black_hit.xml"],
                                        [NVIDIA_ROW], icd=[[GTX_DEVICE]])
        document = json.load(open(os.path.join(secret, "gpuvet.json")))
        document["Secret"] = SECRET
        with open(os.path.join(secret, "gpuvet.json"), "w") as file:
            json.dump(document, file)
        with open(private, "w") as file:
            file.write(SECRET)
        for name in ("link_file", "link_leftover"):
            os.makedirs(machine.drive_c(name))
        os.symlink(os.path.join(secret, "gpuvet.json"), machine.drive_c("link_file/gpuvet.json"))
        os.symlink(private, machine.drive_c("link_leftover/gpuvet.json.tmp-999999-1-0"))
        os.symlink(secret, machine.drive_c("link_folder"))
        before = {path: open(path, "rb").read() for path in (os.path.join(secret, "gpuvet.json"), private)}

        for folder, stores in [("link_file", False), ("link_folder", False), ("link_leftover", True)]:
            status, output, _ = machine.run(args + ["C:\\" + folder], [NVIDIA_ROW], icd=[[GTX_DEVICE]])
            # A fresh test's verdict (the stored refusal would give 245), and one line when nothing is stored.
            expect(failures, folder, status, output, 0, ["gpuvet begin\n", "gpuvet end(ok)\n"] +
                   (["file:C:\\%s\\gpuvet.json\n" % folder] if stores else ["nothing stored\n"]), [SECRET])
            for path, content in before.items():
                if not os.path.exists(path) or open(path, "rb").read() != content:
                    failures.append("%s: %s was touched" % (folder, path))
        if not os.path.islink(machine.drive_c("link_file/gpuvet.json")):
            failures.append("link_file: the planted link is gone")

        # A stored pass forged by another user (a Unix owner Wine maps to no account of the prefix) is not trusted.
        os.makedirs(machine.drive_c("forged"))
        forged = machine.drive_c("forged/gpuvet.json")
        document = json.load(open(os.path.join(secret, "gpuvet.json")))
        document["GpuVet"]["Adapters"][-1]["checkResult"] = 0
        with open(forged, "w") as file:
            json.dump(document, file)
        os.chown(forged, NOBODY, NOBODY)
        forged_bytes = open(forged, "rb").read()
        status, output, _ = machine.run(args + ["C:\\forged", "--blacklist", "C:\\lists\\black_hit.xml"],
                                        [NVIDIA_ROW], icd=[[GTX_DEVICE]])
        expect(failures, "forged", status, output, 245, ["gpuvet begin\n", "belongs to another user, nothing stored\n"],
               [SECRET])
        if open(forged, "rb").read() != forged_bytes or os.stat(forged).st_uid != NOBODY:
            failures.append("forged: the planted file was touched")
    finally:
        machine.close()


SESSIONS = [session_watchdog_and_wine_wmi, session_machine, session_save, session_guard, session_hostile_folder,
            session_verdicts, session_fleet_examples, session_wmi_failures]


class Suite:
    def __init__(self, options):
        self.exe, self.wmi_dll, self.test_icd = options.exe, options.wmi_dll, options.test_icd
        self.hold_file, self.guard_probe = options.hold_file, options.guard_probe
        self.lists_exe, self.native_lists = options.lists_exe, options.native_lists
        self.work = os.path.abspath(options.work)
        self.template = os.path.join(self.work, "template")


def make_template(suite):
    if os.path.exists(os.path.join(suite.template, "system.reg")):
        return
    shutil.rmtree(suite.template, ignore_errors=True)
    env = dict(os.environ, WINEPREFIX=suite.template, WINEDEBUG="-all", LANG="C.UTF-8")
    subprocess.run(["wineboot", "-i"], env=env, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    subprocess.run(["wineserver", "-w"], env=env, check=True)


def main():
    parser = argparse.ArgumentParser()
    for option in ("--exe", "--lists-exe", "--native-lists", "--wmi-dll", "--test-icd", "--hold-file",
                   "--guard-probe", "--work"):
        parser.add_argument(option, required=True)
    suite = Suite(parser.parse_args())
    if shutil.which("wine") is None or shutil.which("wineserver") is None:
        print("Windows suite skipped: Wine is not installed (scripts/install-windows-deps.sh)")
        return 0
    os.makedirs(suite.work, exist_ok=True)
    started = time.monotonic()
    make_template(suite)
    results, seconds = {}, {}

    def timed(session, failures):
        began = time.monotonic()
        try:
            session(suite, failures)
        finally:
            seconds[session.__name__] = time.monotonic() - began

    # Every session at once: a session mostly waits for Wine and for the watchdog's tick.
    with concurrent.futures.ThreadPoolExecutor(max_workers=len(SESSIONS)) as pool:
        futures = {pool.submit(timed, session, failures): (session.__name__, failures)
                   for session in SESSIONS for failures in [[]]}
        for future in concurrent.futures.as_completed(futures):
            name, failures = futures[future]
            try:
                future.result()
            except Exception as error:  # a harness fault counts as a failure of its session
                failures.append("%s: %r" % (name, error))
            results[name] = failures
    for name, failures in sorted(results.items()):
        print("%s %s (%.0f s)" % ("FAIL" if failures else "PASS", name, seconds.get(name, 0)))
        for failure in failures:
            print("    " + failure.replace("\n", "\n    "))
    failed = sum(1 for failures in results.values() if failures)
    print("Windows suite: %.0f s" % (time.monotonic() - started))
    print("%d passed, %d failed" % (len(results) - failed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
