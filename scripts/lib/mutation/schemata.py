"""Writes a source in which each mutant is present and chosen at run time."""

import bisect
import dataclasses

HEADER = b'#include "VexMutant.h"\n#line 1\n'

# Outer forms first, for mutants of the same text.
FORMS = ("statement", "negated", "true", "false", "expression")


@dataclasses.dataclass
class Written:
    text: bytes
    spans: list  # (begin, end, number of the mutant), in the text after the header

    def mutants_at(self, line, column):
        """The mutants around the place, the innermost first. The line counts from 1, the column too, in bytes."""
        body = self.text[len(HEADER):]
        starts = [0]
        while (found := body.find(b"\n", starts[-1])) >= 0:
            starts.append(found + 1)
        if not 1 <= line <= len(starts):
            return []
        offset = starts[line - 1] + column - 1
        around = [(end - begin, number) for begin, end, number in self.spans if begin <= offset < end]
        return [number for _, number in sorted(around)]

    def mutants_on(self, line):
        """All mutants of which a part is on the line."""
        body = self.text[len(HEADER):]
        ends = [place for place, byte in enumerate(body) if byte == 10] + [len(body)]
        return [number for begin, end, number in self.spans
                if bisect.bisect_left(ends, begin) + 1 <= line <= bisect.bisect_left(ends, end - 1) + 1]


def write(source, mutants):
    """The source with all mutants, which are pairs of number and mutant."""
    order = sorted(mutants, key=lambda pair: (pair[1].begin, -pair[1].end, FORMS.index(pair[1].form), pair[0]))
    writer = _Writer(source)
    writer.range(0, len(source), order)
    return Written(HEADER + b"".join(writer.parts), writer.spans)


class _Writer:
    def __init__(self, source):
        self.source = source
        self.parts = []
        self.length = 0
        self.spans = []

    def emit(self, text):
        self.parts.append(text)
        self.length += len(text)

    def range(self, begin, end, order):
        """Writes the source from begin to end with the mutants inside."""
        at = begin
        while order:
            number, mutant = order[0]
            inside = 1
            while inside < len(order) and order[inside][1].begin < mutant.end:
                inside += 1
            self.emit(self.source[at:mutant.begin])
            self.mutant(number, mutant, order[1:inside])
            at = mutant.end
            order = order[inside:]
        self.emit(self.source[at:end])

    def mutant(self, number, mutant, inside):
        is_chosen = f"{'vexMutantInConstexpr' if mutant.constant else 'vexMutant'}({number})"
        before, after = {
            "statement": (f"{{ if (!{is_chosen}) {{ ", " } }"),
            "negated": (f"({is_chosen} != static_cast<bool>(", "))"),
            "true": (f"({is_chosen} || (", "))"),
            "false": (f"(!{is_chosen} && (", "))"),
            "expression": (f"({is_chosen} ? ({mutant.fault}) : (", "))"),
        }[mutant.form]
        begin = self.length
        self.emit(before.encode())
        self.range(mutant.begin, mutant.end, inside)
        self.emit(after.encode())
        self.spans.append((begin, self.length, number))
