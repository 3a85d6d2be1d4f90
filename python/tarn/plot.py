"""Signals of a log over time, drawn with matplotlib (Agg, no display)."""

import numpy as np

from .columns import decode_log

_MAX_TICKS = 40  # value-table texts shown on one axis at most


def resolve(db, names):
    """(message, signal) of each "Signal" or "Message.Signal" name."""
    out = []
    for name in names:
        msg_name, _, sig_name = name.rpartition(".")
        hits = [(m, s) for m in db.messages if not msg_name or m.name == msg_name
                for s in m.signals if s.name == sig_name]
        if not hits:
            raise KeyError("no signal %r in the database" % name)
        if len(hits) > 1:
            raise KeyError("signal %r is in several messages (%s): write Message.Signal"
                           % (name, ", ".join(m.name for m, _ in hits[:5])))
        out.append(hits[0])
    return out


def plot(db, log, signals, output, format=None, frames=None, title=None):
    """Writes a PNG (or any format matplotlib knows by the file name) of the
    signals over time: one panel per unit, and each signal with a value table
    on a panel of its own whose y axis shows the texts (two tables would
    fight over the same ticks). Returns the figure."""
    from matplotlib.backends.backend_agg import FigureCanvasAgg
    from matplotlib.figure import Figure

    chosen = resolve(db, signals)
    if frames is None:
        frames = decode_log(db, log, format=format)
    panels = {}
    for msg, sig in chosen:
        key = (sig.unit or "", (msg.name, sig.name) if sig.choices else None)
        panels.setdefault(key, []).append((msg, sig))
    starts = [frames[m.name].index[0] for m, _ in chosen
              if m.name in frames and len(frames[m.name])]
    t0 = np.nanmin(starts) if starts else 0.0
    if not np.isfinite(t0):
        t0 = 0.0

    fig = Figure(figsize=(10, 1.2 + 2.4 * len(panels)))
    FigureCanvasAgg(fig)
    axes = fig.subplots(len(panels), 1, sharex=True, squeeze=False)[:, 0]
    for ax, ((unit, table), members) in zip(axes, panels.items()):
        has_choices = table is not None
        ticks = {}
        for msg, sig in members:
            df = frames.get(msg.name)
            if df is None or sig.name not in df:
                ax.plot([], [], label="%s (no frames)" % sig.name)
                continue
            series = df[sig.name].dropna()
            x = series.index.to_numpy() - t0
            y = series.to_numpy()
            # few samples: markers, or a lone one would not show at all
            ax.plot(x, y, label=sig.name, drawstyle="steps-post" if has_choices else "default",
                    linewidth=1, marker="." if len(x) < 100 else None)
            if has_choices:
                for raw, label in sig.choices.items():
                    ticks.setdefault(raw * sig.scale + sig.offset, label)
        if ticks:
            _label_values(ax, ticks, np.concatenate(
                [frames[m.name][s.name].dropna().to_numpy() for m, s in members
                 if m.name in frames] or [np.empty(0)]))
        ax.set_ylabel(unit)
        ax.grid(True, alpha=0.3)
        ax.legend(loc="upper right", fontsize="small")
    axes[-1].set_xlabel("time (s)")
    if title:
        fig.suptitle(title)
    fig.tight_layout()
    fig.savefig(output, dpi=100)
    return fig


def _label_values(ax, texts, values):
    """Value-table texts as y ticks. A signal whose every value has a text
    gets texts only; one whose table names a few special values (an
    "SNA" sentinel, say) keeps its numeric ticks beside them."""
    seen = set(np.unique(values).tolist())
    shown = {v: t for v, t in texts.items() if v in seen}
    if seen and seen <= set(texts):
        if len(shown) <= _MAX_TICKS:
            ax.set_yticks(sorted(shown))
            ax.set_yticklabels([shown[v] for v in sorted(shown)], fontsize="small")
        return
    low, high = ax.get_ylim()
    near = 0.04 * (high - low)  # numbers this close to a text would overprint it
    numbers = [t for t in ax.get_yticks() if low <= t <= high
               and all(abs(t - v) > near for v in shown)]
    marks = sorted(set(numbers) | set(list(shown)[:_MAX_TICKS]))
    ax.set_yticks(marks)
    ax.set_yticklabels([shown.get(v, "%g" % v) for v in marks], fontsize="small")
    ax.set_ylim(low, high)
