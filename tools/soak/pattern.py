"""A stream's bytes: each record of 256 says whose it is and where it belongs, and what fills it
differs from record to record, so that no byte can come from elsewhere unseen."""

import random

RECORD = 256
NAME = b"%07x:%07x\n"
FILL = RECORD - len(NAME % (0, 0))
FILLER = random.Random(1).randbytes(1 << 16)
PLACES = len(FILLER) - FILL


class WrongBytes(Exception):
    """Bytes have come that belong to another stream or place; the text says which."""


def pattern(stream, offset, size):
    """So many bytes of this stream from this place on."""
    if size <= 0:
        return b""
    first = offset // RECORD
    records = []
    for record in range(first, (offset + size - 1) // RECORD + 1):
        place = (stream * 7919 + record * 613) % PLACES
        records.append(NAME % (stream, record))
        records.append(FILLER[place:place + FILL])
    begin = offset - first * RECORD
    return b"".join(records)[begin:begin + size]


def check(stream, offset, got, where):
    wanted = pattern(stream, offset, len(got))
    if got != wanted:
        at = next(i for i, pair in enumerate(zip(got, wanted)) if pair[0] != pair[1])
        raise WrongBytes(f"{where}: stream {stream} has {got[at:at + 48]!r} at {offset + at}, "
                         f"not {wanted[at:at + 48]!r}")
