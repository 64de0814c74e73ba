#!/usr/bin/env python3
"""The shared library's dynamic symbol table holds the C exports and nothing else."""
import subprocess
import sys

EXPECTED = {"dataExchange" + name for name in (
    "Init Close GetLastErrors Version Sha1 EnumerateOptions GetInt32Option SetInt32Option "
    "GetUint32Option SetUint32Option GetUint64Option SetUint64Option GetStringOption "
    "SetStringOption UploadData "
    # Opt-in extensions.
    "SetProgressCallback SetStallTimeout SetRemovePackage SetUseConfiguredProxy "
    "SetVerifiedDelivery GetStoredName SetPackingThreads SetCompression SetUnicodePaths "
    "SetRetries SetSpoolFolder SendSpooled ListSpooled SetLogCallback SetStreamingUpload").split()}


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


library = sys.argv[1]
# Sections of the version script (e.g. the SONAME node) show as absolute symbols.
found = {parts[2].split("@")[0] for parts in map(str.split, output(
    "nm", "-D", "--defined-only", library).splitlines()) if len(parts) == 3 and parts[1] != "A"}
failures = []
if found != EXPECTED:
    failures.append(f"missing {sorted(EXPECTED - found)}, extra {sorted(found - EXPECTED)}")
if "SONAME               libdataExchange.so.2" not in output("objdump", "-p", library):
    failures.append("SONAME is not libdataExchange.so.2")
print("\n".join(failures + [f"{0 if failures else 1} passed, {len(failures)} failed"]))
sys.exit(1 if failures else 0)
