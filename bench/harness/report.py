"""What a run has found: a table, the raw figures and a picture."""

import csv
import os
from statistics import median

from .picture import draw


def _number(value):
    if value is None:
        return ""
    if value >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}" if value < 10 else f"{value:.1f}"


class Results:
    """Figures by round, and ratios that are taken within a round."""

    def __init__(self, rounds, counts, subjects):
        self._results = rounds.results
        self._counts = counts
        self._rows = {row.name: row for row in rounds.rows}
        self._subjects = subjects
        self.rounds = sorted({key[0] for key in self._results})
        self.placements = list(dict.fromkeys(key[1] for key in self._results))

    def row_names(self):
        return list(self._rows)

    def subjects_of(self, name):
        return self._subjects.of(self._rows[name]) if name in self._rows else []

    def several(self, name):
        return len(self.subjects_of(name)) > 1

    def figure(self, placement, name, subject, figure):
        """The median over the rounds."""
        values = [self._results[key].get(figure)
                  for key in ((number, placement, name, subject) for number in self.rounds)
                  if key in self._results]
        values = [value for value in values if value is not None]
        return median(values) if values else None

    def counted(self, name, subject, figure):
        return self._counts.get((name, subject), {}).get(figure)

    def ratios(self, placement, figure, of, to):
        """The ratios of the rounds; of and to are a row and a subject each."""
        found = []
        for number in self.rounds:
            above = self._results.get((number, placement, *of), {}).get(figure)
            below = self._results.get((number, placement, *to), {}).get(figure)
            if above is not None and below:
                found.append(above / below)
        return found

    def raw(self):
        for (number, placement, name, subject), figures in sorted(self._results.items()):
            yield {"round": number + 1, "placement": placement, "name": name, "library": subject,
                   **figures}


def _range(values):
    if not values:
        return ""
    return f"{_number(median(values))} ({_number(min(values))}-{_number(max(values))})"


def _table(header, lines):
    text = "| " + " | ".join(header) + " |\n|" + "---|" * len(header) + "\n"
    return text + "".join("| " + " | ".join(line) + " |\n" for line in lines) + "\n"


def _ratio_lines(results, ratios):
    for ratio in ratios:
        for subject in results.subjects_of(ratio.of):
            beside = subject if subject in results.subjects_of(ratio.to) else ""
            found = [results.ratios(placement, ratio.figure, (ratio.of, subject),
                                    (ratio.to, beside)) for placement in results.placements]
            if any(found):
                title = ratio.title + (f" [{subject}]" if results.several(ratio.of) else "")
                yield [title, *map(_range, found), _number(ratio.wanted), _number(ratio.hoped)]


def _limit_lines(results, limits):
    for limit in limits:
        for subject in results.subjects_of(limit.row):
            value = results.counted(limit.row, subject, limit.figure)
            if value is None:
                value = results.figure("one", limit.row, subject, limit.figure)
            if value is not None:
                title = limit.title + (f" [{subject}]" if results.several(limit.row) else "")
                yield [title, *map(_number, (value, limit.wanted, limit.hoped))]


def _library_lines(results, figures):
    """Each library over the first, for every row of the library."""
    for name in results.row_names():
        first, *others = results.subjects_of(name)
        for other in others:
            found = [_range(results.ratios("one", figure, (name, other), (name, first)))
                     for figure, _ in figures]
            if any(found):
                yield [name, other, *found]


FIGURES = [("p50_ns", "p50 ns"), ("p99_ns", "p99 ns"), ("calls_per_second", "calls/s"),
           ("cpu_us_per_call", "CPU us"), ("switches_per_call", "switches"),
           ("kb_per_connection", "KB a connection"), ("gb_per_second", "GB/s"),
           ("peak_kb", "peak KB")]
COUNTS = [("system_calls", "system calls"), ("instructions", "instructions")]


def _figure_lines(results, placement):
    for name in results.row_names():
        for subject in results.subjects_of(name):
            found = [results.figure(placement, name, subject, figure) for figure, _ in FIGURES]
            found += [results.counted(name, subject, figure) for figure, _ in COUNTS]
            if found[0] is not None:
                yield [name, subject, *map(_number, found)]


def _write_table(path, results, ratios, limits, about):
    with open(path, "w", encoding="utf-8") as out:
        out.write("".join(f"{line}\n" for line in about) + "\n")
        out.write("## Ratios\n\nThe median of the ratios of the rounds, and their range.\n\n")
        out.write(_table(["", *results.placements, "wanted", "hoped for"],
                         _ratio_lines(results, ratios)))
        lines = list(_limit_lines(results, limits))
        if lines:
            out.write("On one CPU, the median of the rounds:\n\n")
            out.write(_table(["", "figure", "wanted", "hoped for"], lines))
        lines = list(_library_lines(results, FIGURES[:5]))
        if lines:
            out.write("## Libraries over the first, on one CPU\n\n")
            out.write(_table(["row", "library", *(title for _, title in FIGURES[:5])], lines))
        for placement in results.placements:
            out.write(f"## Figures, {placement}\n\n")
            out.write(_table(["row", "library", *(title for _, title in FIGURES + COUNTS)],
                             _figure_lines(results, placement)))


def _write_raw(path, results):
    raw = list(results.raw())
    fields = list(dict.fromkeys(field for line in raw for field in line))
    with open(path, "w", encoding="utf-8", newline="") as out:
        writer = csv.DictWriter(out, fields)
        writer.writeheader()
        writer.writerows(raw)


def write(folder, results, ratios, limits, about):
    """Writes table.md, raw.csv and picture.png."""
    os.makedirs(folder, exist_ok=True)
    _write_table(os.path.join(folder, "table.md"), results, ratios, limits, about)
    _write_raw(os.path.join(folder, "raw.csv"), results)
    draw(folder, results)
