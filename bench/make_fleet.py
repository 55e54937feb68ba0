#!/usr/bin/env python3
"""Writes a fleet for the impact benchmark: MACHINES snapshots as JSON Lines
(about a kilobyte each) and an old and a new black list and white list of
ITEMS items each, drawn from one pool of devices so that the lists decide
machines.

usage: make_fleet.py DIR MACHINES ITEMS
"""
import json
import os
import random
import sys

VENDORS = [(0x10DE, "NVIDIA CUDA", "NVIDIA Corporation"), (0x1002, "AMD Accelerated Parallel Processing",
           "Advanced Micro Devices, Inc."), (0x8086, "Intel(R) OpenCL Graphics", "Intel(R) Corporation")]


def device_pool(rng, count):
    pool = []
    for n in range(count):
        vid, _, _ = VENDORS[n % len(VENDORS)]
        pool.append({"VID": vid, "DeviceName": "GPU model %d" % (n // 3), "OpenCLCVersion": "OpenCL C 1.2",
                     "DeviceVersion": "OpenCL 3.0 build %d" % rng.randrange(4),
                     "DriverVersion": "%d.%d" % (rng.randrange(300, 600), rng.randrange(100))})
    return pool


def snapshot(rng, pool, number):
    adapters, rows, devices = [], [], []
    for slot in range(rng.choice([1, 1, 2])):
        key = rng.choice(pool)
        name = "%s [board %d]" % (key["DeviceName"], slot)
        version, date = key["DriverVersion"], "20%02d0101000000.000000-000" % rng.randrange(15, 25)
        dev = 0x1000 + number % 0x800 + slot
        adapters.append({"venID": key["VID"], "devID": dev, "devName": name, "strDrvVer": version,
                         "strDrvDate": date})
        rows.append({"Caption": name, "PNPDeviceID": "PCI\\VEN_%04X&DEV_%04X&SUBSYS_00000000&REV_00\\0000:%02x:00.0"
                     % (key["VID"], dev, slot + 1), "DriverVersion": version, "DriverDate": date})
        devices.append({"type": 4, "name": key["DeviceName"], "version": key["DeviceVersion"],
                        "driverVersion": key["DriverVersion"], "vendorId": key["VID"],
                        "openClCVersion": key["OpenCLCVersion"], "extensions": "cl_khr_fp64 cl_khr_icd",
                        "key": key})
    platform = {"gpuCount": len(devices), "handle": "0x55d0c0de%04x" % number, "profile": "FULL_PROFILE",
                "version": "OpenCL 3.0", "name": "fleet platform", "vendor": "fleet vendor", "icdSuffix": "FLT",
                "extensions": "cl_khr_icd", "devices": devices, "failed": False}
    return {"format": "gpuvet-snapshot", "formatVersion": 1, "tool": "bench/make_fleet.py",
            "taken": "2026-11-23T00:00:00Z", "adapters": adapters, "adapterLog": [], "driverRows": rows,
            "census": {"platformCount": 1, "platformListFailed": False, "platforms": [platform]}}


def write_list(path, root, items):
    with open(path, "w") as out:
        out.write("<?xml version=\"1.0\"?>\n<%s>\n" % root)
        for key in items:
            out.write("<Item><VID>%d</VID><DeviceName>%s</DeviceName><OpenCLCVersion>%s</OpenCLCVersion>"
                      "<DeviceVersion>%s</DeviceVersion><DriverVersion>%s</DriverVersion></Item>\n"
                      % (key["VID"], key["DeviceName"], key["OpenCLCVersion"], key["DeviceVersion"],
                         key["DriverVersion"]))
        out.write("</%s>\n" % root)


def main():
    folder, machines, items = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    rng = random.Random(19)
    os.makedirs(folder, exist_ok=True)
    pool = device_pool(rng, 3 * items)
    for name, root in (("old-black.xml", "BlackList"), ("new-black.xml", "BlackList"),
                       ("old-white.xml", "WhiteList"), ("new-white.xml", "WhiteList")):
        write_list(os.path.join(folder, name), root, rng.sample(pool, items))
    with open(os.path.join(folder, "fleet.jsonl"), "w") as out:
        for number in range(machines):
            out.write(json.dumps(snapshot(rng, pool, number), separators=(",", ":")) + "\n")


if __name__ == "__main__":
    main()
