"""A picture of deployments: pH from both references, temperature and the reference cell voltages
against time, with the points the quality check flagged marked, and each deployment's start drawn as
a line. Panels whose columns the deployments did not log are left out.
"""

import math

import matplotlib

matplotlib.use("Agg")  # files only: no display on a ship's laptop over ssh, nor in the tests

import matplotlib.dates as mdates  # noqa: E402
import matplotlib.pyplot as plt  # noqa: E402

from . import qc  # noqa: E402

PANELS = [
    ("pH (total scale)", [("ph_int", "pH internal"), ("ph_ext", "pH external")]),
    ("temperature (°C)", [("temperature", "sensor temperature"), ("ctd_temperature", "CTD temperature")]),
    ("reference cells (V)", [("vrsi", "Vrsi internal"), ("vrse", "Vrse external")]),
]
MARKS = {qc.PROBABLY_BAD: ("o", "red", "flag 3 probably bad"), qc.BAD: ("x", "black", "flag 4 bad")}


def _series(deployments, key):
    """One variable's (times, values, flags) per deployment that logged it. A missing or non-finite
    value is NaN, so that the line breaks there instead of bridging the gap; its flag is None."""
    segments = []
    for d, dflags in deployments:
        if d.column(key) is None:
            continue
        times, values, flags = [], [], []
        for s, f in zip(d.samples, dflags):
            v = s.values.get(key)
            if s.time is None:
                continue
            finite = v is not None and v.finite
            times.append(s.time)
            values.append(v.number if finite else math.nan)
            flags.append(f.flags.get(key) if finite else None)
        if any(not math.isnan(v) for v in values):
            segments.append((times, values, flags))
    return segments


def draw(deployments, path, title):
    """Saves the picture (format from the file name); returns the number of panels drawn."""
    checked = [(d, qc.check(d)) for d in deployments]
    panels = [(label, [(k, n, _series(checked, k)) for k, n in series]) for label, series in PANELS]
    panels = [(label, [s for s in series if s[2]]) for label, series in panels]
    panels = [p for p in panels if p[1]]
    if not panels:
        raise ValueError("none of pH, temperature or the reference voltages was logged")
    fig, axes = plt.subplots(len(panels), 1, sharex=True, figsize=(10, 2.6 * len(panels) + 0.8), squeeze=False)
    for ax, (label, series) in zip(axes[:, 0], panels):
        for number, (key, name, segments) in enumerate(series):
            # One line per deployment, so that nothing is drawn across the time between them.
            for k, (times, values, _) in enumerate(segments):
                ax.plot(times, values, "-", color=f"C{number}", linewidth=0.9, label=name if k == 0 else None)
            points = [p for times, values, flags in segments for p in zip(times, values, flags)]
            for flag, (marker, color, mark_name) in MARKS.items():
                pts = [(t, v) for t, v, f in points if f == flag]
                if pts:
                    labelled = mark_name in ax.get_legend_handles_labels()[1]
                    ax.plot([p[0] for p in pts], [p[1] for p in pts], marker, color=color, markersize=6,
                            fillstyle="none", linestyle="none", label=None if labelled else mark_name)
        for d, _ in checked:
            if d.start is not None:
                ax.axvline(d.start, color="grey", linestyle=":", linewidth=0.8)
        ax.set_ylabel(label)
        ax.grid(True, alpha=0.3)
        ax.legend(loc="best", fontsize="small")
    locator = mdates.AutoDateLocator()
    axes[-1, 0].xaxis.set_major_locator(locator)
    axes[-1, 0].xaxis.set_major_formatter(mdates.ConciseDateFormatter(locator))
    axes[-1, 0].set_xlabel("time (UTC)")
    fig.suptitle(title)
    fig.tight_layout()
    fig.savefig(path, dpi=110)
    plt.close(fig)
    return len(panels)
