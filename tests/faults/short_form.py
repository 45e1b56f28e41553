"""The part of the trials that is small enough for every day."""

from trials import failures, without_repeats


def place_of(call):
    """Where a call reaches: what of a path is the same for every message and user."""
    parts = [part for part in call.path.split("/") if not part.isdigit()]
    return "/".join(parts[:3]) + (f"/…/{parts[-1]}" if len(parts) > 3 else "")


def chosen_failures(calls, seen):
    """One failure for each call at each place, in the program and in its children.

    seen  what was chosen before; which error it is goes round.
    """
    by_sign = {}
    for fault in failures(without_repeats(calls)):
        sign = (fault.call.name, fault.call.flags, fault.call.process > 0, place_of(fault.call),
                fault.how)
        by_sign.setdefault(sign, []).append(fault)
    for sign, faults in by_sign.items():
        if sign not in seen:
            seen.add(sign)
            yield faults[len(seen) % len(faults)]
