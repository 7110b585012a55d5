"""The table of equivalent mutants, and what a run found."""

import collections
import pathlib


class Equivalents:
    """Mutants that no caller can tell from the original. Each has its key on a line and its reason below, indented."""

    def __init__(self, path):
        self.reasons = {}
        key = None
        lines = path.read_text(encoding="utf-8").splitlines() if path.exists() else []
        for number, line in enumerate(lines, 1):
            if not line.strip() or line.startswith("#"):
                continue
            if not line.startswith(" "):
                key = line.strip()
                if key.count(" | ") < 3 or key in self.reasons:
                    raise ValueError(f"{path}:{number}: this is not a mutant's key, or it is there twice")
                self.reasons[key] = ""
            elif key is None:
                raise ValueError(f"{path}:{number}: a reason without a mutant")
            else:
                self.reasons[key] = f"{self.reasons[key]} {line.strip()}".strip()
        for key, reason in self.reasons.items():
            if not reason:
                raise ValueError(f"{path}: no reason for {key}")

    def stale(self, mutants):
        """The keys that no mutant has."""
        return sorted(set(self.reasons) - {mutant.key() for mutant in mutants})


def report(verdicts, equivalents, least):
    """Prints what was found. Returns the problems."""
    def table(name_of):
        groups = collections.defaultdict(list)
        for mutant, verdict in verdicts:
            groups[name_of(mutant)].append(verdict.found)
        for name, found in sorted(groups.items()):
            print(f"  {name}: {sum(found)} of {len(found)}")

    print("\nBy folder:")
    table(lambda mutant: str(pathlib.PurePath(mutant.file).parent))
    print("By kind:")
    table(lambda mutant: mutant.kind)
    found = sum(verdict.found for _, verdict in verdicts)
    percent = 100.0 * found / len(verdicts) if verdicts else 0.0
    survivors = [(mutant, verdict) for mutant, verdict in verdicts if not verdict.found]
    unknown = [(mutant, verdict) for mutant, verdict in survivors if mutant.key() not in equivalents.reasons]
    print(f"The tests found {found} of {len(verdicts)} mutants, {percent:.1f} percent. Of the {len(survivors)} others, "
          f"{len(survivors) - len(unknown)} are known to be equivalent.")
    for mutant, verdict in sorted(unknown, key=lambda pair: (pair[0].file, pair[0].begin)):
        ran = f"{verdict.tests} tests" if verdict.tests else "no test executes it"
        print(f"survived: {mutant.key()} (line {mutant.line}, {ran})")
    problems = [f"in the table of equivalents, but {verdict.test} finds it: {mutant.key()}"
                for mutant, verdict in verdicts if verdict.found and mutant.key() in equivalents.reasons]
    if not verdicts:
        problems.append("there was no mutant")
    elif percent < least:
        problems.append(f"the tests found less than {least:g} percent")
    return problems
