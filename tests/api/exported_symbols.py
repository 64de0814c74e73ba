#!/usr/bin/env python3
"""The shared library's dynamic symbol table holds the C exports and nothing else."""
import subprocess
import sys

EXPECTED = {
    "dataExchangeInit", "dataExchangeClose", "dataExchangeGetLastErrors",
    "dataExchangeVersion", "dataExchangeSha1", "dataExchangeEnumerateOptions",
    "dataExchangeGetInt32Option", "dataExchangeSetInt32Option",
    "dataExchangeGetUint32Option", "dataExchangeSetUint32Option",
    "dataExchangeGetUint64Option", "dataExchangeSetUint64Option",
    "dataExchangeGetStringOption", "dataExchangeSetStringOption",
    "dataExchangeUploadData",
    # Opt-in extensions.
    "dataExchangeSetProgressCallback", "dataExchangeSetStallTimeout",
    "dataExchangeSetRemovePackage", "dataExchangeSetUseConfiguredProxy",
}


def defined_symbols(library):
    out = subprocess.run(["nm", "-D", "--defined-only", library], check=True,
                         capture_output=True, text=True).stdout
    names = set()
    for line in out.splitlines():
        parts = line.split()
        # Sections of the version script (e.g. the SONAME node) show as absolute symbols.
        if len(parts) == 3 and parts[1] != "A":
            names.add(parts[2].split("@")[0])
    return names


def main():
    library = sys.argv[1]
    found = defined_symbols(library)
    soname = subprocess.run(["objdump", "-p", library], check=True, capture_output=True,
                            text=True).stdout
    failures = []
    if found != EXPECTED:
        failures.append(f"missing {sorted(EXPECTED - found)}, extra {sorted(found - EXPECTED)}")
    if "SONAME               libdataExchange.so.2" not in soname:
        failures.append("SONAME is not libdataExchange.so.2")
    for failure in failures:
        print(failure)
    print(f"{0 if failures else 1} passed, {len(failures)} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
