#!/usr/bin/env bash
# FTLM targets, whole corefit runs side by side in one session: the engine before the symmetry
# blocks (PRESENT, a corefit built from an earlier commit) beside this one (NEW), alternately,
# on the same input; wall and CPU seconds, peak memory, the largest standard error FTLM states and
# the run's own estimate of its time (the setup line "a fit takes about").
#   bench/ftlm_targets.sh PRESENT NEW [MPI_NEW] [--large]
# MPI_NEW: an MPI build of this corefit, for the run under mpirun -np 2 beside one process.
# --large adds Fe10 (10 x S=5/2 ring, 6.0e7 states).
set -euo pipefail
present=$1
new=$2
mpi=${3:-}
large=${4:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# An input of N sites of spin 2S/2 on a ring with one J = -10 K, nothing free: a whole run is
# the setup and chiT at 300 temperatures from 2 to 300 K.
ring() {
    local dir=$work/$1 n=$2 twice=$3
    mkdir -p "$dir"
    {
        echo "0, 0, 0"
        echo "$n"
        for _ in $(seq "$n"); do echo "$twice"; done
        echo "5, 1e-06"
        printf '2, 0\n0, 0\n0, 0\n0, 0\n-10, 0\n'
        for i in $(seq "$n"); do echo "$i, $((i % n + 1)), 5"; done
    } > "$dir/input.txt"
    awk 'BEGIN { print "300, 1, 300"; for (i = 0; i < 300; i++) printf "%.12g 1\n", 2 + i * 298 / 299 }' \
        > "$dir/chit.txt"
}

# One run: label, then the command; prints wall s, CPU s, peak GiB, largest standard error.
measure() {
    local label=$1 dir=$2
    shift 2
    local start end
    start=$(date +%s.%N)
    /usr/bin/time -f "%U %S %M" -o "$work/time" "$@" "$dir/input.txt" > "$work/stdout" 2>&1 || true
    end=$(date +%s.%N)
    local error estimate
    error=$(tail -1 "$dir/output.txt" 2>/dev/null | sed -n 's/.*largest \([0-9.]* %\).*/\1/p')
    estimate=$(sed -n 's/.*a fit takes about \([0-9.e+]*\) s.*/\1/p' "$work/stdout" | head -1)
    read -r user system kb < "$work/time"
    printf '%-34s %9.1f %9.1f %8.2f %9s %7s\n' "$label" "$(echo "$end - $start" | bc)" \
        "$(echo "$user + $system" | bc)" "$(echo "$kb / 1048576" | bc -l)" "${error:--}" \
        "${estimate:--}"
}

printf '%s\n' "FTLM targets, $(date -u '+%Y-%m-%d %H:%M UTC'), $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs), nproc $(nproc), load $(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-34s %9s %9s %8s %9s %7s\n' run "wall s" "CPU s" "peak GiB" "std error" "est s"
ring ring18 18 1
ring ring20 20 1
ring fe8 8 5
measure "18 x 1/2 present (20 vectors)" "$work/ring18" "$present" --method ftlm
measure "18 x 1/2 new (20 vectors)" "$work/ring18" "$new" --method ftlm
measure "18 x 1/2 new (4 vectors)" "$work/ring18" "$new" --method ftlm --ftlm-vectors 4
measure "20 x 1/2 present (20 vectors)" "$work/ring20" "$present" --method ftlm
measure "20 x 1/2 new (20 vectors)" "$work/ring20" "$new" --method ftlm
measure "20 x 1/2 new (4 vectors)" "$work/ring20" "$new" --method ftlm --ftlm-vectors 4
measure "8 x 5/2 new (4 vectors)" "$work/fe8" "$new" --method ftlm --ftlm-vectors 4
if [ -n "$mpi" ]; then
    measure "20 x 1/2 new, 1 process, 1 thread" "$work/ring20" "$mpi" --method ftlm --threads 1
    measure "20 x 1/2 new, 1 process, 2 threads" "$work/ring20" "$mpi" --method ftlm
    measure "20 x 1/2 new, mpirun -np 2" "$work/ring20" mpirun --allow-run-as-root -np 2 "$mpi" --method ftlm --threads 1
fi
if [ "$large" = "--large" ]; then
    ring fe10 10 5
    measure "10 x 5/2 new (4 vectors)" "$work/fe10" "$new" --method ftlm --ftlm-vectors 4
    measure "10 x 5/2 new (5 vectors)" "$work/fe10" "$new" --method ftlm --ftlm-vectors 5
fi
