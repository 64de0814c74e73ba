#!/bin/sh
# The wheel as a user installs it: offline into a fresh virtual environment, where a program
# away from the source tree runs with it.   wheel_venv.sh PYTHON WHEEL VENV PROGRAM [ARGUMENT...]
set -eu
python=$1 wheel=$2 venv=$3
shift 3
rm -rf "$venv"
"$python" -m venv "$venv"
"$venv/bin/python" -m pip install --quiet --no-index --no-deps "$wheel"
cd "$venv"
unset PYTHONPATH
exec "$venv/bin/python" "$@"
