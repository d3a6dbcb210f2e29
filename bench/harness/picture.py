"""The picture of a run: three groups of bars on one CPU, the median of the rounds each."""

import os
import shutil

from .processes import run

PANELS = [
    ("synchronous call of 100 bytes, p50 (us)", "p50_ns", 1e-3,
     ["floor-100", "handoff-best-100-t1", "handoff-100-t1", "sync-100-t1", "hiredis-100-t1",
      "curl-100-t1", "nats-100-t1", "grpc-100-t1"]),
    ("4 threads, 100 bytes (thousand calls a second)", "calls_per_second", 1e-3,
     ["handoff-best-100-t4", "handoff-100-t4", "sync-100-t4", "hiredis-100-t4-c4",
      "curl-100-t4-c4", "nats-100-t4", "grpc-100-t4"]),
    ("256 requests on their way at once (thousand calls a second)", "calls_per_second", 1e-3,
     ["handoff-best-window-256", "handoff-window-256", "async-256", "hiredis-window-256",
      "nats-window-256", "grpc-window-256"]),
]
LABELS = {"floor": "floor", "handoff-best": "best hand-off", "handoff": "hand-off",
          "sync": "library", "async": "library", "hiredis": "hiredis", "curl": "libcurl",
          "nats": "NATS", "grpc": "gRPC"}


def _label(name, subject):
    kind = max((kind for kind in LABELS if name.startswith(kind)), key=len)
    return subject if subject and subject != "library" else LABELS[kind]


def _bars(results, figure, scale, names):
    for name in names:
        for subject in results.subjects_of(name):
            value = results.figure("one", name, subject, figure)
            if value is not None:
                yield _label(name, subject), value * scale, 1 if subject else 0


def _panel(title, bars):
    colours = ("#9aa7b1", "#1f6f8b")
    lines = [f'set title "{title}"', f"set xrange [-0.6:{len(bars) - 0.4}]",
             "set xtics ({})".format(", ".join(f'"{label}" {at}'
                                               for at, (label, _, _) in enumerate(bars)))]
    data = "\n".join(f"{at} {value} {kind}" for at, (_, value, kind) in enumerate(bars))
    lines.append(f"$bars << END\n{data}\nEND")
    lines.append("plot " + ", ".join(
        f'$bars using ($3 == {kind} ? $1 : NaN):2 with boxes fillcolor "{colour}"'
        for kind, colour in enumerate(colours))
        + ', $bars using 1:2:(sprintf("%.1f", $2)) with labels offset 0,0.7')
    return "\n".join(lines)


def draw(folder, results):
    """Writes picture.png, if there is gnuplot and anything to be drawn."""
    panels = [_panel(title, bars) for title, bars in
              ((title, list(_bars(results, figure, scale, names)))
               for title, figure, scale, names in PANELS) if bars]
    if not panels or not shutil.which("gnuplot"):
        return
    script = os.path.join(folder, "picture.gnuplot")
    with open(script, "w", encoding="utf-8") as out:
        out.write("set terminal pngcairo size 1000,{} font 'sans,11'\n".format(330 * len(panels)))
        out.write("set output 'picture.png'\nset style fill solid\nset boxwidth 0.7\nunset key\n"
                  "set yrange [0:*]\nset grid ytics\nset offsets 0, 0, graph 0.12, 0\n")
        out.write(f"set multiplot layout {len(panels)},1\n" + "\n".join(panels) + "\n")
    run(["gnuplot", "picture.gnuplot"], folder=folder)
