#!/usr/bin/env python3
"""Makes tables and plots of sample lines (see support/Bench.h).

  report.py DIRECTORY < LINES   writes results.md and an SVG plot for each question into the directory
  report.py - < LINES           prints the tables

A value is the median of its rounds, with the quartiles in brackets. A ratio is the median of the ratios of all rounds.
"""
import html
import os
import re
import statistics
import sys
from collections import defaultdict

HERE = os.path.dirname(os.path.abspath(__file__))


class Question:
    def __init__(self, text):
        self.text = text
        self.settings = {}
        self.units = {}
        self.samples = defaultdict(lambda: defaultdict(dict))  # row, who: round, value


def read(lines):
    """The questions in their order. Several runs with the same question are merged."""
    questions = {}
    current = None
    for line in lines:
        fields = line.rstrip("\n").split("\t")
        if fields[0] == "question":
            current = questions.setdefault(fields[1], Question(fields[1]))
        elif fields[0] == "setting":
            current.settings.setdefault(fields[1], []).append(fields[2])
        elif fields[0] == "sample":
            row, who, number, value, unit = fields[1:]
            current.units[row] = unit
            current.samples[row][who][int(number)] = float(value)
    for question in questions.values():
        for row, samples in question.samples.items():
            question.samples[row] = dict(sorted(samples.items(), key=lambda sample: sample[0] != "product"))
    return list(questions.values())


def spread(values):
    values = sorted(values)
    if len(values) < 2:
        return values[0], values[0], values[0]
    low, middle, high = statistics.quantiles(values, n=4, method="inclusive")
    return low, middle, high


def number(value):
    if abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def value_text(low, middle, high):
    return number(middle) if low == high else f"{number(middle)} [{number(low)} .. {number(high)}]"


def read_targets():
    with open(os.path.join(HERE, "targets.tsv"), encoding="utf-8") as lines:
        return [line.rstrip("\n").split("\t") for line in lines if not line.startswith("#")]


def compare(question, row, targets):
    """For each target of the row: (who, other) -> (quartiles of the value, relation, bound, whether it is reached)."""
    found = {}
    for pattern, who, other, relation, bound in targets:
        samples = question.samples[row]
        if (who, other) in found or not re.fullmatch(pattern, row) or who not in samples:
            continue
        if other != "-" and other not in samples:
            continue
        if other == "-":
            values = list(samples[who].values())
        else:
            both = samples[who].keys() & samples[other].keys()
            values = [samples[who][n] / samples[other][n] for n in both]
        low, middle, high = spread(values)
        reached = None
        if relation != "shown":
            reached = middle <= float(bound) if relation == "<=" else middle >= float(bound)
        found[who, other] = (low, middle, high, relation, bound, reached)
    return found


def tables(questions, targets):
    out = []
    for question in questions:
        out.append(f"### {question.text}\n")
        rows = []
        for row, samples in question.samples.items():
            unit = question.units[row]
            values = "<br>".join(f"{who}: {value_text(*spread(v.values()))} {unit}" for who, v in samples.items())
            comparisons = compare(question, row, targets)
            ratios, verdicts = [], []
            for (who, other), (low, middle, high, relation, bound, reached) in comparisons.items():
                what = "" if other == "-" else f"{who} / {other}: "
                sign = "≤" if relation == "<=" else "≥"
                text = number(middle) if other == "-" else f"{middle:.3f} [{low:.3f} .. {high:.3f}]"
                ratios.append(f"{what}{text}")
                verdicts.append("-" if reached is None else f"{sign} {bound}: {'yes' if reached else '**no**'}")
            rows.append(f"| {row} | {values} | {'<br>'.join(ratios) or '-'} | {'<br>'.join(verdicts) or '-'} |")
        out.append("| What | Measured | Ratio | Reached |\n|---|---|---|---|")
        out.extend(rows)
        settings = "; ".join(f"{name}: {', '.join(dict.fromkeys(v))}" for name, v in question.settings.items())
        out.append(f"\nSettings: {settings}.\n" if settings else "")
    return "\n".join(out)


COLOURS = {"product": "#1b5e9c"}


def plot(question):
    """A panel for each row: a bar up to each median, and a line between its quartiles."""
    label, width, line, right = 260, 460, 20, 130
    parts, y = [], 30
    for row, samples in question.samples.items():
        values = {who: spread(v.values()) for who, v in samples.items()}
        largest = max(high for _, _, high in values.values()) or 1
        parts.append(f'<text x="8" y="{y}" class="row">{html.escape(row)} ({html.escape(question.units[row])})</text>')
        y += line
        for who, (low, middle, high) in values.items():
            x0, x, x1 = (label + width * v / largest for v in (low, middle, high))
            colour = COLOURS.get(who, "#8a5a00")
            parts.append(
                f'<text x="{label - 8}" y="{y + 4}" text-anchor="end">{html.escape(who)}</text>'
                f'<line x1="{label}" y1="{y}" x2="{label + width}" y2="{y}" stroke="#e0e0e0"/>'
                f'<rect x="{label}" y="{y - 5}" width="{max(x - label, 0.5):.1f}" height="10" fill="{colour}"/>'
                f'<line x1="{x0:.1f}" y1="{y}" x2="{x1:.1f}" y2="{y}" stroke="#000" stroke-width="2"/>'
                f'<text x="{label + width + 8}" y="{y + 4}">{number(middle)}</text>')
            y += line
        y += line // 2
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{label + width + right}" height="{y}" '
            f'font-family="sans-serif" font-size="12"><style>.row {{ font-weight: bold }}</style>'
            f'<rect width="100%" height="100%" fill="#fff"/>' + "".join(parts) + "</svg>\n")


def main():
    questions = read(sys.stdin)
    text = tables(questions, read_targets())
    if sys.argv[1] == "-":
        print(text)
        return
    for question in questions:
        name = re.sub(r"[^a-z0-9]+", "-", question.text.lower()).strip("-")
        with open(os.path.join(sys.argv[1], name + ".svg"), "w", encoding="utf-8") as out:
            out.write(plot(question))
    with open(os.path.join(sys.argv[1], "results.md"), "w", encoding="utf-8") as out:
        out.write(text)


main()
