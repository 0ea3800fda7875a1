#!/usr/bin/env bash
# corefit under `mpirun -np 2` gives the same output.txt as one process: an FTLM fit of g and J
# of a 16 x S=1/2 ring. Skipped (exit 77, the reason on the output) where mpirun or an MPI build
# of corefit is missing.
set -euo pipefail
corefit=$1
mpi_build=$2
if [ "$mpi_build" != "ON" ]; then
    echo "skipped: corefit built without MPI (configure with -DCOREFIT_MPI=ON)"
    exit 77
fi
if ! command -v mpirun >/dev/null; then
    echo "skipped: mpirun not found (Debian: openmpi-bin)"
    exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/one" "$work/two"
{
    echo "0, 0, 0"
    echo 16
    for _ in $(seq 16); do echo 1; done
    echo "5, 1e-06"
    echo "2.1, 0.02"
    echo "0, 0"
    echo "0, 0"
    echo "0, 0"
    echo "-8, -0.1"
    for i in $(seq 16); do echo "$i, $((i % 16 + 1)), 5"; done
} > "$work/one/input.txt"
# chiT of spins 1/2 with a falling moment at low temperature.
awk 'BEGIN { print "40, 1, 40"; for (i = 0; i < 40; i++) { t = 2 + 7.4 * i;
             printf "%.6f %.8f\n", t, 6 * (1 - exp(-t / 15)) * 0.375 * 4 * 0.75 / 4 } }' \
    > "$work/one/chit.txt"
cp "$work/one/input.txt" "$work/one/chit.txt" "$work/two/"
options=(--method ftlm --ftlm-vectors 4 --ftlm-steps 40 --starts 0 --threads 1)
"$corefit" "${options[@]}" "$work/one/input.txt" > "$work/one/stdout"
mpirun --oversubscribe --allow-run-as-root -np 2 "$corefit" "${options[@]}" \
    "$work/two/input.txt" > "$work/two/stdout"
grep -q "blocks split over 2 MPI processes" "$work/two/corefit.log" ||
    { echo "the MPI run did not split its blocks"; exit 1; }
if ! cmp "$work/one/output.txt" "$work/two/output.txt"; then
    diff "$work/one/output.txt" "$work/two/output.txt" | head -20
    exit 1
fi
# The standard output but for the times, measured and estimated (the processes share the work).
times='s/, [0-9.]* s$//; s/takes about [0-9.e+]* s/takes about . s/'
sed "$times" "$work/one/stdout" > "$work/one/progress"
sed "$times" "$work/two/stdout" > "$work/two/progress"
diff "$work/one/progress" "$work/two/progress"
echo "same output from one process and from two"
