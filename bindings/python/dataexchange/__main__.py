"""python -m dataexchange --version: the version and source revision of the library the binding
loads (see load()), as dataexchange-upload --version prints them."""
import argparse

import dataexchange

parser = argparse.ArgumentParser(prog="python -m dataexchange",
                                 description="The Python binding of the dataExchange library.")
parser.add_argument("--version", action="store_true",
                    help="print the library's version and source revision")
parser.add_argument("--library", help="the library's path (default: see dataexchange.load)")
arguments = parser.parse_args()
if not arguments.version:
    parser.error("nothing to do: give --version")
print("dataExchange %s\nrevision %s" % (dataexchange.version(arguments.library),
                                        dataexchange.sha1(arguments.library)))
