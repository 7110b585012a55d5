"""Chooses mutants evenly: each file gives a share in proportion to its mutants, and a seed decides which."""

import collections
import dataclasses
import hashlib
import math


def number_twins(mutants):
    """The mutants in the order of the sources. Mutants with the same key are numbered."""
    count = collections.Counter()
    result = []
    for mutant in sorted(mutants, key=lambda one: (one.file, one.begin, -one.end, one.form, one.fault)):
        count[mutant.key()] += 1
        number = count[mutant.key()]
        result.append(dataclasses.replace(mutant, shown=f"{mutant.shown} #{number}") if number > 1 else mutant)
    return result


def order(mutants, seed):
    """The mutants of each file in an order that depends on the seed and their keys only."""
    files = collections.defaultdict(list)
    for mutant in mutants:
        files[mutant.file].append(mutant)
    for here in files.values():
        here.sort(key=lambda mutant: hashlib.sha256(f"{seed} {mutant.key()}".encode()).digest())
    return files


def quotas(files, count):
    """How many mutants each file gives; largest remainders get what rounding leaves."""
    total = sum(len(here) for here in files.values())
    count = min(count, total)
    shares = {file: count * len(here) / total for file, here in files.items()}
    result = {file: math.floor(share) for file, share in shares.items()}
    by_remainder = sorted(files, key=lambda file: (result[file] - shares[file], file))
    for file in by_remainder[:count - sum(result.values())]:
        result[file] += 1
    return result


def choose(mutants, count, seed, spare):
    """The first mutants of each file: its quota, and some more in case that some do not compile."""
    files = order(mutants, seed)
    chosen = []
    for file, quota in quotas(files, count).items():
        chosen += files[file][:quota + (math.ceil(quota * spare) + 1 if quota else 0)]
    return chosen


def final(chosen, compiled, mutants, count, seed):
    """Of the chosen mutants that compile each file's quota, with their numbers, in a mixed order."""
    files = order(mutants, seed)
    left = quotas(files, count)
    result = []
    for number, mutant in enumerate(chosen, 1):
        if number in compiled and left[mutant.file] > 0:
            left[mutant.file] -= 1
            result.append((number, mutant))
    return sorted(result, key=lambda pair: hashlib.sha256(f"{seed} mixed {pair[1].key()}".encode()).digest())
