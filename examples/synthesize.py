#!/usr/bin/env python3
"""Write the synthetic example inputs (cu2-dimer, cu3-triangle, ni4-cubane, cu2-ferro).

The susceptibility is computed by exact diagonalisation of
H = -2 sum J_p Sa.Sb in the product basis, one total-Mz block at a time, then
chi = chi'(zJ) + C/T + Xtip with Gaussian noise of one size for every observed value:
0.3 % of the largest observed value, as an unweighted fit and its uncertainties assume.
cu2-ferro has chiT measured at 0.1 T and a magnetisation set M(H) at 2 K: there the Zeeman
levels E - g muB B M give M = g <M> (N muB) and chi = M N muB / H, each set with noise of 0.3 %
of its own largest value.
The output is deterministic: running the script again rewrites the same bytes.

    python3 examples/synthesize.py           write the .qpi files next to this script
    python3 examples/synthesize.py --check   compare the model with closed forms
"""
import math
import os
import random
import sys

C0 = 0.375148096                                  # N muB^2 / k, cm3 K mol-1
MUB_K = 0.67171381563                             # muB / k, K T-1
N_MUB = 5584.93941                                 # N muB, cm3 G mol-1 (emu mol-1 per N muB)
TO_KELVIN = {"CM-1": 1.4387768775, "MEV": 11.6045181216, "K": 1.0}
UNIT_NAME = {"CM-1": "cm-1", "MEV": "meV", "K": "K"}
NOISE = 0.003                                     # standard deviation / largest value
TEMPERATURES = ([float(t) for t in range(2, 10)] + [float(t) for t in range(10, 20, 2)]
                + [float(t) for t in range(20, 100, 5)] + [float(t) for t in range(100, 301, 10)])

# True values (J and zJ in the file's energy unit) and the starting point written to the file.
# start/step: g, C, zJ, Xtip as (start, step); J as a list of (start, step).
EXAMPLES = [
    dict(file="cu2-dimer.qpi", title="Copper(II) dimer, strong antiferromagnetic coupling",
         what="Copper(II) dimer, two S = 1/2 sites, chiT data.",
         data="XTT", unit="CM-1", seed=2112, spins2=[1, 1], pairs=[(1, 2, 1)],
         g=2.12, J=[-145.0], C=0.0060, zJ=0.0, xtip=1.2e-4,
         start=dict(g=(2.0, 0.01), J=[(-120.0, 1.0)], C=(0.002, 0.00005), zJ=(0.0, 0.0),
                    xtip=(0.00012, 0.0)),
         note="Xtip is kept fixed at its true value."),
    dict(file="cu3-triangle.qpi", title="Isosceles copper(II) triangle",
         what="Isosceles copper(II) triangle, three S = 1/2 sites, chi data.",
         data="XT", unit="K", seed=3210, spins2=[1, 1, 1], pairs=[(1, 2, 1), (2, 3, 1), (1, 3, 2)],
         g=2.10, J=[-25.0, -8.0], C=0.0, zJ=0.0, xtip=1.8e-4,
         start=dict(g=(2.0, 0.01), J=[(-20.0, 0.2), (-5.0, 0.1)], C=(0.0, 0.0), zJ=(0.0, 0.0),
                    xtip=(0.0001, 0.000001)),
         note="J1 on the paths 1-2 and 2-3, J2 on the path 1-3; C and zJ kept fixed at 0."),
    dict(file="ni4-cubane.qpi", title="Nickel(II) cubane with intermolecular coupling",
         what="Ni(II)4 cubane, four S = 1 sites, chiT data.",
         data="XTT", unit="CM-1", seed=4815, spins2=[2, 2, 2, 2],
         pairs=[(1, 2, 1), (1, 3, 1), (2, 4, 1), (3, 4, 1), (1, 4, 2), (2, 3, 2)],
         g=2.15, J=[8.0, -3.0], C=0.0, zJ=-0.05, xtip=0.0,
         start=dict(g=(2.1, 0.01), J=[(6.0, 0.1), (-2.0, 0.05)], C=(0.0, 0.0), zJ=(0.0, 0.001),
                    xtip=(0.0, 0.0)),
         note="J1 on the paths 1-2, 1-3, 2-4, 3-4, J2 on 1-4 and 2-3; "
              "C and Xtip kept fixed at 0."),
    dict(file="cu2-ferro.qpi", title="Ferromagnetic copper(II) dimer, chiT at 0.1 T and M(H) at 2 K",
         what="Copper(II) dimer with ferromagnetic coupling, two S = 1/2 sites, chiT data "
              "measured at 0.1 T and magnetization at 2 K.",
         data="XTT", unit="CM-1", seed=2718, spins2=[1, 1], pairs=[(1, 2, 1)],
         g=2.08, J=[25.0], C=0.0, zJ=-0.05, xtip=0.0, field=0.1,
         magnet=[(2.0, 0.25 * h) for h in range(1, 29)],
         start=dict(g=(2.0, 0.01), J=[(10.0, 0.1)], C=(0.0, 0.0), zJ=(0.0, 0.001),
                    xtip=(0.0, 0.0)),
         note="g, J1 and zJ are fitted to both sets at once; C and Xtip kept fixed at 0."),
]


def jacobi_eigenvalues(a):
    """Eigenvalues of the symmetric matrix a (list of lists, overwritten), cyclic Jacobi."""
    n = len(a)
    for _ in range(100):
        off = sum(a[i][j] ** 2 for i in range(n) for j in range(i + 1, n))
        scale = sum(a[i][i] ** 2 for i in range(n))
        if off <= 1e-26 * scale or off < 1e-300:
            break
        for p in range(n - 1):
            for q in range(p + 1, n):
                if a[p][q] == 0.0:
                    continue
                theta = (a[q][q] - a[p][p]) / (2.0 * a[p][q])
                t = math.copysign(1.0, theta) / (abs(theta) + math.sqrt(theta * theta + 1.0))
                c = 1.0 / math.sqrt(t * t + 1.0)
                s = t * c
                for k in range(n):                # columns p, q
                    akp, akq = a[k][p], a[k][q]
                    a[k][p], a[k][q] = c * akp - s * akq, s * akp + c * akq
                for k in range(n):                # rows p, q
                    apk, aqk = a[p][k], a[q][k]
                    a[p][k], a[q][k] = c * apk - s * aqk, s * apk + c * aqk
    return [a[i][i] for i in range(n)]


def energy_levels(spins2, pairs, j_kelvin):
    """List of (Mz, energy in K) over all states; pairs are (a, b, k) with 1-based indices."""
    basis = [()]
    for s2 in spins2:                             # states as tuples of 2m
        basis = [st + (m2,) for st in basis for m2 in range(-s2, s2 + 1, 2)]
    blocks = {}
    for st in basis:
        blocks.setdefault(sum(st), []).append(st)
    levels = []
    for mz2, states in sorted(blocks.items()):
        index = {st: i for i, st in enumerate(states)}
        h = [[0.0] * len(states) for _ in states]
        for i, st in enumerate(states):
            for a, b, k in pairs:
                a, b, jk = a - 1, b - 1, j_kelvin[k - 1]
                h[i][i] += -2.0 * jk * (st[a] / 2.0) * (st[b] / 2.0)
                for da in (2, -2):                # S+a S-b and S-a S+b
                    new = list(st)
                    new[a] += da
                    new[b] -= da
                    new = tuple(new)
                    if new in index:
                        sa, ma, sb, mb = spins2[a] / 2.0, st[a] / 2.0, spins2[b] / 2.0, st[b] / 2.0
                        sgn = 1.0 if da > 0 else -1.0
                        amp = math.sqrt((sa * (sa + 1) - ma * (ma + sgn))
                                        * (sb * (sb + 1) - mb * (mb - sgn)))
                        h[index[new]][i] += -jk * amp
        levels += [(mz2 / 2.0, e) for e in jacobi_eigenvalues(h)]
    return levels


def chi(levels, t, g, zj_kelvin=0.0, c=0.0, xtip=0.0):
    """Molar susceptibility (cm3 mol-1) at t kelvin."""
    e0 = min(e for _, e in levels)
    z = m2 = 0.0
    for mz, e in levels:
        w = math.exp(-(e - e0) / t)
        z += w
        m2 += mz * mz * w
    chi_cluster = C0 * g * g / t * m2 / z
    chi_mf = chi_cluster / (1.0 - 2.0 * zj_kelvin / (C0 * g * g) * chi_cluster)
    return chi_mf + c / t + xtip


def magnetisation(levels, t, b, g, zj_kelvin=0.0, c=0.0, xtip=0.0):
    """Molar magnetisation (N muB) at t kelvin and b tesla: the Zeeman levels E - g muB b M,
    a mean field solved by iteration, C as free S = 1/2 centres with g = 2, and Xtip b."""
    def mean_m(h):                                # <M> with Zeeman energy -h M (h in K)
        e0 = min(e - h * mz for mz, e in levels)
        z = m = 0.0
        for mz, e in levels:
            w = math.exp(-(e - h * mz - e0) / t)
            z += w
            m += mz * w
        return m / z
    h0 = g * MUB_K * b
    s = mean_m(h0)
    for _ in range(10000):                        # h = h0 + 2 zJ <M>, plain iteration
        new = mean_m(h0 + 2.0 * zj_kelvin * s)
        if abs(new - s) <= 1e-15 * max(abs(s), 1e-300):
            break
        s = 0.5 * (s + new)
    return g * s + c / C0 * math.tanh(MUB_K * b / t) + xtip * b * 1e4 / N_MUB


def num(x):
    """Plain decimal notation without exponent, as short as it goes."""
    s = format(x, ".10f").rstrip("0")
    return s + "0" if s.endswith(".") else s


def render(ex):
    k = TO_KELVIN[ex["unit"]]
    levels = energy_levels(ex["spins2"], ex["pairs"], [j * k for j in ex["J"]])
    rng = random.Random(ex["seed"])
    st = ex["start"]
    quantity = "chiT in cm3 K mol-1" if ex["data"] == "XTT" else "chi in cm3 mol-1"
    unit = UNIT_NAME[ex["unit"]]
    js = ", ".join("J%d = %s %s" % (i + 1, num(j), unit) for i, j in enumerate(ex["J"]))
    lines = [
        "! " + ex["what"],
        "! Synthetic data written by synthesize.py, true values: g = %s, %s," % (num(ex["g"]), js),
        "! zJ = %s %s, C = %s cm3 K mol-1, Xtip = %s cm3 mol-1."
        % (num(ex["zJ"]), unit, num(ex["C"]), num(ex["xtip"])),
        "! Noise: Gaussian, one standard deviation for all points (0.3 %% of the largest value),"
        " random seed %d." % ex["seed"],
        "! " + ex["note"],
        "! Observed values are %s; T in K." % quantity,
        "! Spins are given as 2S; J in the H = -2 sum J Sa.Sb convention"
        " (negative J: antiferromagnetic).",
        "TITLE " + ex["title"],
        "KEYWD DATA_FILE=%s ENERGY_UNIT=%s PRECISION=0.00001" % (ex["data"], ex["unit"]),
        "KEYWD G_START=%s G_STEP=%s C_START=%s C_STEP=%s" % tuple(map(num, st["g"] + st["C"])),
        "KEYWD ZJ_START=%s ZJ_STEP=%s XTIP_START=%s XTIP_STEP=%s"
        % tuple(map(num, st["zJ"] + st["xtip"])),
    ]
    lines += ["J_VALUE%d %s %s" % (i + 1, num(s), num(d)) for i, (s, d) in enumerate(st["J"])]
    lines += ["SPIN_ON_SITE%d %d" % (i + 1, s2) for i, s2 in enumerate(ex["spins2"])]
    lines += ["INTERACTION sites %d and %d coupled by J%d" % p for p in ex["pairs"]]
    field = ex.get("field", 0.0)
    if field:
        lines.insert(lines.index(next(l for l in lines if l.startswith("KEYWD ZJ"))) + 1,
                     "KEYWD FIELD=%s" % num(field))
    values = []
    for t in TEMPERATURES:
        if field:
            y = (magnetisation(levels, t, field, ex["g"], ex["zJ"] * k, ex["C"], ex["xtip"])
                 * N_MUB / (field * 1e4))
        else:
            y = chi(levels, t, ex["g"], ex["zJ"] * k, ex["C"], ex["xtip"])
        values.append(y * t if ex["data"] == "XTT" else y)
    sigma = NOISE * max(values)
    for t, y in zip(TEMPERATURES, values):
        lines.append("T_CHI %.1f %.6g" % (t, y + sigma * rng.gauss(0.0, 1.0)))
    if ex.get("magnet"):
        moments = [magnetisation(levels, t, b, ex["g"], ex["zJ"] * k, ex["C"], ex["xtip"])
                   for t, b in ex["magnet"]]
        sigma = NOISE * max(moments)
        lines.append("! Magnetization: T in K, field in T, M in N muB (Bohr magnetons per "
                     "formula unit).")
        for (t, b), m in zip(ex["magnet"], moments):
            lines.append("T_H_M %.1f %s %.6g" % (t, num(b), m + sigma * rng.gauss(0.0, 1.0)))
    return "\n".join(lines) + "\n"


def check():
    """Compare the brute-force model with closed forms; return the number of failures."""
    failures = 0

    def same(label, got, want):
        nonlocal failures
        ok = abs(got - want) <= 1e-9 * abs(want)
        failures += not ok
        print("%-4s %-52s %.12g  %.12g" % ("ok" if ok else "FAIL", label, got, want))

    g = 2.1
    one = energy_levels([1], [], [])
    for t in (2.0, 300.0):
        same("S = 1/2 Curie law, T = %g K" % t, chi(one, t, g), C0 * g * g / (4.0 * t))
    for j in (-150.0, 20.0):
        dimer = energy_levels([1, 1], [(1, 2, 1)], [j])
        for t in (5.0, 100.0):
            same("Bleaney-Bowers, J = %g K, T = %g K" % (j, t), chi(dimer, t, g),
                 2.0 * C0 * g * g / t / (3.0 + math.exp(-2.0 * j / t)))
    # Ni4 cubane, S = 1 sites: Kambe energies with S14 = S1 + S4, S23 = S2 + S3.
    j1, j2 = 11.5, -4.3
    pairs = [(1, 2, 1), (1, 3, 1), (2, 4, 1), (3, 4, 1), (1, 4, 2), (2, 3, 2)]
    brute = sorted(e for _, e in energy_levels([2, 2, 2, 2], pairs, [j1, j2]))
    kambe = []
    for a in range(3):
        for b in range(3):
            for s in range(abs(a - b), a + b + 1):
                e = (-j1 * (s * (s + 1) - a * (a + 1) - b * (b + 1))
                     - j2 * (a * (a + 1) + b * (b + 1) - 8))
                kambe += [e] * (2 * s + 1)
    # A free S = 1/2 with g = 2: M = tanh(muB B / kT) (Brillouin), and chi at a low field.
    for t, b in ((2.0, 7.0), (10.0, 1.0)):
        same("S = 1/2 Brillouin, T = %g K, B = %g T" % (t, b), magnetisation(one, t, b, 2.0),
             math.tanh(MUB_K * b / t))
    same("chi at 1e-5 T, ferromagnetic dimer with zJ, T = 5 K",
         magnetisation(energy_levels([1, 1], [(1, 2, 1)], [20.0]), 5.0, 1e-5, g, -0.3, 0.01,
                       1e-4) * N_MUB / 0.1,
         chi(energy_levels([1, 1], [(1, 2, 1)], [20.0]), 5.0, g, -0.3, 0.01, 1e-4))
    worst = max(abs(x - y) for x, y in zip(brute, sorted(kambe)))
    ok = len(brute) == len(kambe) == 81 and worst < 1e-9
    failures += not ok
    print("%-4s %-52s max |dE| = %.2g K"
          % ("ok" if ok else "FAIL", "Ni4 cubane levels against Kambe", worst))
    return failures


def main():
    if sys.argv[1:] == ["--check"]:
        sys.exit(1 if check() else 0)
    if sys.argv[1:]:
        sys.exit(__doc__)
    here = os.path.dirname(os.path.abspath(__file__))
    for ex in EXAMPLES:
        with open(os.path.join(here, ex["file"]), "w", newline="\n") as f:
            f.write(render(ex))
        print("wrote", ex["file"])


if __name__ == "__main__":
    main()
