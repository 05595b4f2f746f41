"""Quality flags per sample, on the Argo/OceanSITES scale, each with the rules that set it.

Flags: 1 good, 3 probably bad, 4 bad, 9 missing (0, "no QC", is never given: every value present is
tested). A variable's flag is the worst its rules gave; a sample's flag is the worst of its
variables', 9 only when all of them are missing.

Rules, per variable:
- missing (9): the field is empty (an instrument that did not answer, a column of another group).
- non_finite (4): the board printed nan or inf (a calculation without a usable input).
- range (4): outside what the sensor or the ocean can give (pH outside 0..14, temperature outside
  -2.5..40 C, a cell voltage at the ADC's limits, salinity above 42).
- ocean_range (3): pH outside 6.5..9.0, which sea water does not reach but a sensor can report.
- salinity_not_positive (4): the salinity and the external pH computed from it.
- ph_difference (3): the two references disagree, |pHint - pHext| above the threshold, both pH.
- jump (3): a value standing out from both neighbours (the Argo spike test: |v - (prev + next)/2|
  - |(next - prev)/2| above the variable's limit). A lasting step is not flagged, only a value that
  leaves its neighbours and comes back.
Rules per sample, given to every variable:
- duplicate (4): the same sample number or time as an earlier line of the deployment.
- time_order (4): earlier than the sample before it.
- gap (3): more than 1.5 periods after the sample before it: the first sample after the board was
  off (a power cut, a reset) is taken from a sensor that has not settled again.
"""

import math
from dataclasses import dataclass, field

GOOD, PROBABLY_BAD, BAD, MISSING = 1, 3, 4, 9
FLAG_MEANINGS = {GOOD: "good_data", PROBABLY_BAD: "probably_bad_data", BAD: "bad_data", MISSING: "missing_value"}

# Variables tested, with their hard range (flag 4) and their jump limit.
VARIABLES = {
    "temperature": ((-2.5, 40.0), 1.0),
    "ph_int": ((0.0, 14.0), 0.05),
    "ph_ext": ((0.0, 14.0), 0.05),
    "salinity": ((0.0, 42.0), 0.5),
    "vrsi": ((-2.048, 2.048), 0.005),
    "vrse": ((-2.048, 2.048), 0.005),
}
OCEAN_PH = (6.5, 9.0)


@dataclass
class Settings:
    ph_difference: float = 0.05  # largest |pHint - pHext| taken as agreement
    gap_periods: float = 1.5


@dataclass
class SampleFlags:
    sample: object  # datafile.Sample
    flags: dict = field(default_factory=dict)  # variable -> flag
    rules: dict = field(default_factory=dict)  # variable -> set of rule names

    @property
    def flag(self):
        present = [f for f in self.flags.values() if f != MISSING]
        if not present:
            return MISSING if self.flags else GOOD
        return max(present)

    def set(self, variable, flag, rule):
        if variable not in self.flags:
            return
        self.rules[variable].add(rule)
        if self.flags[variable] == MISSING or flag == MISSING:
            self.flags[variable] = MISSING if flag == MISSING else self.flags[variable]
            return
        self.flags[variable] = max(self.flags[variable], flag)

    def rule_text(self):
        """"rule:variable" pairs, sorted, for a table cell."""
        return ";".join(sorted(f"{r}:{v}" for v, rs in self.rules.items() for r in rs))


def _number(sample, key):
    v = sample.values.get(key)
    return None if v is None else v.number


def check(deployment, settings=None):
    """The flags of every sample of a deployment, in file order."""
    settings = settings or Settings()
    present = [k for k in VARIABLES if deployment.column(k) is not None]
    out = []
    for s in deployment.samples:
        f = SampleFlags(s, {k: GOOD for k in present}, {k: set() for k in present})
        for k in present:
            _value_rules(f, k, _number(s, k))
        _salinity_rules(f)
        _ph_difference(f, settings.ph_difference)
        out.append(f)
    for k in present:
        _jumps(out, k)
    _schedule(out, deployment.period, settings.gap_periods)
    return out


def _value_rules(f, key, value):
    if value is None:
        f.set(key, MISSING, "missing")
        return
    if not math.isfinite(value):
        f.set(key, BAD, "non_finite")
        return
    low, high = VARIABLES[key][0]
    if not low <= value <= high:
        f.set(key, BAD, "range")
    elif key.startswith("ph_") and not OCEAN_PH[0] <= value <= OCEAN_PH[1]:
        f.set(key, PROBABLY_BAD, "ocean_range")


def _salinity_rules(f):
    sal = _number(f.sample, "salinity")
    if sal is not None and math.isfinite(sal) and sal <= 0:
        f.set("salinity", BAD, "salinity_not_positive")
        f.set("ph_ext", BAD, "salinity_not_positive")


def _ph_difference(f, limit):
    a, b = _number(f.sample, "ph_int"), _number(f.sample, "ph_ext")
    if a is None or b is None or not (math.isfinite(a) and math.isfinite(b)):
        return
    if abs(a - b) > limit:
        f.set("ph_int", PROBABLY_BAD, "ph_difference")
        f.set("ph_ext", PROBABLY_BAD, "ph_difference")


def _jumps(flags, key):
    limit = VARIABLES[key][1]
    usable = [f for f in flags if key in f.sample.values and f.sample.values[key].finite]
    for prev, this, nxt in zip(usable, usable[1:], usable[2:]):
        a, b, c = (_number(x.sample, key) for x in (prev, this, nxt))
        if abs(b - (a + c) / 2) - abs((c - a) / 2) > limit:
            this.set(key, PROBABLY_BAD, "jump")


def _schedule(flags, period, gap_periods):
    seen_numbers, seen_times, last_time = set(), set(), None
    for f in flags:
        s = f.sample
        rule = None
        if (s.number is not None and s.number in seen_numbers) or (s.time is not None and s.time in seen_times):
            rule = ("duplicate", BAD)
        elif last_time is not None and s.time is not None and s.time < last_time:
            rule = ("time_order", BAD)
        elif (last_time is not None and s.time is not None and period
              and (s.time - last_time).total_seconds() > gap_periods * period):
            rule = ("gap", PROBABLY_BAD)
        if rule:
            for k in f.flags:
                f.set(k, rule[1], rule[0])
        if s.number is not None:
            seen_numbers.add(s.number)
        if s.time is not None:
            seen_times.add(s.time)
            last_time = s.time if last_time is None else max(last_time, s.time)


def summary(flags):
    """(samples per flag, samples per rule) over a deployment's samples."""
    per_flag = {GOOD: 0, PROBABLY_BAD: 0, BAD: 0, MISSING: 0}
    per_rule = {}
    for f in flags:
        per_flag[f.flag] += 1
        for r in set().union(*f.rules.values()):
            per_rule[r] = per_rule.get(r, 0) + 1
    return per_flag, per_rule
