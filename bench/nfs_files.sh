#!/usr/bin/env bash
# 100 MiB copied out of and into the built-in NFS responder with libnfs's
# nfs-cp (NFSv3, one request at a time), three runs each, MB/s; and, where
# a network namespace can be made (root), the same copies against
# NFS-Ganesha serving the same folder from inside one, with the ratios
# responder/Ganesha (targets: reads 0.8 or better, writes 0.5 or better).
# Environment: SIZE_MB (default 100), RUNS (default 3).
set -euo pipefail
source "$(dirname "$0")/common.sh"
size_mb=${SIZE_MB:-100}
runs=${RUNS:-3}

"$root/scripts/install-deps.sh" test >/dev/null
build_release
nfs_port=$(free_port)
port=$(free_port)
start_datad "$port" --nfs --nfs-port "$nfs_port"
tenant="$work/storage/tenants/default"
head -c $((size_mb * 1024 * 1024)) /dev/urandom >"$work/file.bin"
cp "$work/file.bin" "$tenant/out.bin"
chmod 755 "$work"

# rate <seconds>: MB/s for one copy.
rate() { awk -v s="$1" -v mb="$size_mb" 'BEGIN { printf "%.0f", mb / s }'; }
# best <command…>: the best MB/s of $runs copies; "@" in the command is
# the run's number (nfs-cp will not replace a file, and a server may still
# remember a removed one, so each write goes to a new name).
best() {
  local top=0 start end r run
  for run in $(seq "$runs"); do
    rm -f "$work/back.bin"
    start=$(date +%s.%N)
    "${@//@/$run}" >/dev/null
    end=$(date +%s.%N)
    r=$(rate "$(awk -v a="$start" -v b="$end" 'BEGIN { print b - a }')")
    [ "$r" -gt "$top" ] && top=$r
  done
  echo "$top"
}

q="version=3&nfsport=$nfs_port&mountport=$nfs_port"
read_own=$(best nfs-cp "nfs://127.0.0.1$tenant/out.bin?$q" "$work/back.bin")
cmp -s "$work/file.bin" "$work/back.bin" || { echo "read back differs" >&2; exit 1; }
write_own=$(best nfs-cp "$work/file.bin" "nfs://127.0.0.1$tenant/in-@.bin?$q")
cmp -s "$work/file.bin" "$tenant/in-1.bin" || { echo "written file differs" >&2; exit 1; }
printf 'responder: read %5s MB/s   write %5s MB/s\n' "$read_own" "$write_own"

ns=vostra-bench-$$
if [ "$(id -u)" -ne 0 ] || ! ip netns add "$ns" 2>/dev/null; then
  echo "Ganesha: skipped (no network namespace here)"
  exit 0
fi
trap 'kill "${ganesha_pid:-}" "${rpcbind_pid:-}" 2>/dev/null; sleep 1; ip netns del "$ns"; cleanup' EXIT
ip netns exec "$ns" ip link set lo up
ip netns exec "$ns" ip addr add 10.255.255.1/32 dev lo
mkdir -p "$work/recovery"
cat >"$work/ganesha.conf" <<CONF
NFS_CORE_PARAM { NFS_Protocols = 3,4; }
NFSV4 { RecoveryRoot = $work/recovery; Graceless = true; }
EXPORT {
    Export_Id = 1; Path = "$tenant"; Pseudo = "/t"; Protocols = 3,4; Transports = TCP;
    FSAL { Name = VFS; }
    CLIENT { Clients = *; Access_Type = RW; Squash = No_Root_Squash; }
}
CONF
ip netns exec "$ns" rpcbind -f & rpcbind_pid=$!
sleep 0.5
ip netns exec "$ns" ganesha.nfsd -F -L "$work/ganesha.log" -f "$work/ganesha.conf" -p "$work/ganesha.pid" &
ganesha_pid=$!
for _ in $(seq 60); do grep -q "NFS SERVER INITIALIZED" "$work/ganesha.log" 2>/dev/null && break; sleep 0.5; done
read_ganesha=$(best ip netns exec "$ns" nfs-cp "nfs://10.255.255.1$tenant/out.bin?version=3" "$work/back.bin")
write_ganesha=$(best ip netns exec "$ns" nfs-cp "$work/file.bin" "nfs://10.255.255.1$tenant/g-@.bin?version=3")
cmp -s "$work/file.bin" "$tenant/g-1.bin" || { echo "file written to Ganesha differs" >&2; exit 1; }
printf 'Ganesha:   read %5s MB/s   write %5s MB/s\n' "$read_ganesha" "$write_ganesha"
printf 'ratio:     read %s (target >= 0.8)   write %s (target >= 0.5)\n' \
  "$(ratio "$read_own" "$read_ganesha")" "$(ratio "$write_own" "$write_ganesha")"
