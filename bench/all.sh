#!/usr/bin/env bash
# Every benchmark in one run: the verifier's own timings, the export audit
# and the receipt batch, each against `openssl speed` on this machine.
# Run it on an otherwise idle machine; the figures are ratios for that reason.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
./verifier.sh
./audit.sh
./receipts.sh
./pictures.sh
./dsfinvk.sh
./serve.sh
