#!/usr/bin/env bash
# Installs what is missing, builds, and starts the SNMP agent in the
# foreground with the embedded simulated array on udp:127.0.0.1:1161, with
# the demo configuration (host/agent/demo.conf) and its demo credentials.
# Stop it with Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
cmake -S . -B build-run -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZERVA_BUILD_TESTS=OFF -DZERVA_BUILD_BENCH=OFF >/dev/null
cmake --build build-run -j "$(nproc)" --target zerva-snmp-agent zerva_snmp_dlmod snmp_zerva_performance

AGENT=build-run/host/agent/zerva-snmp-agent
CONF=host/agent/demo.conf
PEER=127.0.0.1:1161
MIBOPTS="-M mibs:mibs/base -m VEM-PERFORMANCE-MIB"

cat <<TRY
The agent serves 1.3.6.1.4.1.32473.4.1.21 on udp:${PEER} (configuration: ${CONF}).
Its credentials are demo credentials, published with the sources: the communities
"public" (read) and "private" (read-write) and the SNMPv3 user "zerva" (zerva-auth-pass,
zerva-priv-pass) are accepted from 127.0.0.1 only, and the agent refuses to listen on an
address other hosts reach while its configuration holds them.
Try, from another terminal in $(pwd):

  snmpget  -v2c -c public  ${MIBOPTS} ${PEER} 1.3.6.1.4.1.32473.4.1.21.1.0
  snmpwalk -v2c -c public  ${MIBOPTS} ${PEER} 1.3.6.1.4.1.32473.4.1.21
  snmpbulkwalk -v2c -c public ${MIBOPTS} ${PEER} 1.3.6.1.4.1.32473.4.1.21.4
TRY
for t in vemPerfNodeTable vemPerfLunTable vemPerfPortTable vemPerfCacheTable vemPerfNfsV3Table \
         vemPerfNfsV4Table vemPerfNfsV41Table vemPerfSmbV1Table vemPerfSmbV2Table vemPerfFsTable; do
  echo "  snmptable -v2c -c public -Cb ${MIBOPTS} ${PEER} VEM-PERFORMANCE-MIB::${t}"
done
cat <<TRY
  snmpset  -v2c -c private ${MIBOPTS} ${PEER} 1.3.6.1.4.1.32473.4.1.21.1.0 u 0   # collection off: tables empty
  snmpset  -v2c -c private ${MIBOPTS} ${PEER} 1.3.6.1.4.1.32473.4.1.21.1.0 u 1   # and on again
  snmpget  -v3 -l authPriv -u zerva -a SHA -A zerva-auth-pass -x AES -X zerva-priv-pass ${MIBOPTS} ${PEER} 1.3.6.1.4.1.32473.4.1.21.1.0

TRY
exec "${AGENT}" -f -L -c "${CONF}"
