"""What a CARD argument names: a card image (FAT12/16/32, with or without a partition table), a
board directory of the simulator (its sdcard.img), or files copied off a card. From it come the
data files' deployments, the error log and the float log.
"""

import os
from dataclasses import dataclass, field

from . import datafile, fatimage, logs

ERROR_LOG = "ERROR.TXT"
FLOAT_LOG = "APFLOG.TXT"
NOT_DATA = {ERROR_LOG, FLOAT_LOG, "UVSCAL.CSV", "SNAPSHOT.TXT"}


class SourceError(Exception):
    pass


@dataclass
class Card:
    name: str
    deployments: list = field(default_factory=list)
    errors: list = field(default_factory=list)  # logs.ErrorEntry
    float_log: dict = field(default_factory=dict)  # kind -> logs.FloatTable
    problems: list = field(default_factory=list)  # "FILE: reason", for what could not be read
    files: list = field(default_factory=list)  # data file names read


def _text(data):
    # The board writes ASCII; a damaged card may hold anything, which must not stop the reading.
    return data.decode("ascii", errors="replace")


def _card_files(path):
    """(name, bytes) of every file on a card image, and the image's warnings."""
    try:
        with fatimage.CardImage(path) as card:
            out = [(e.path, card.read(e.path)) for e in card.files() if not e.is_dir]
            return out, list(card.warnings)
    except fatimage.CardError as e:
        raise SourceError(f"{path}: {e}") from e


def _files(path):
    if os.path.isdir(path):
        image = os.path.join(path, "sdcard.img")
        if os.path.isfile(image):
            return _card_files(image)
        names = sorted(n for n in os.listdir(path) if os.path.isfile(os.path.join(path, n)))
        return [(n, _read(os.path.join(path, n))) for n in names], []
    if not os.path.isfile(path):
        raise SourceError(f"{path}: no such file or directory")
    if fatimage.is_card_image(path):
        return _card_files(path)
    return [(os.path.basename(path), _read(path))], []


def _read(path):
    try:
        with open(path, "rb") as f:
            return f.read()
    except OSError as e:
        raise SourceError(f"{path}: {e.strerror}") from e


def open_card(path):
    """Everything the board logged that `path` holds."""
    files, warnings = _files(path)
    card = Card(os.path.basename(os.path.normpath(path)), problems=list(warnings))
    for name, data in files:
        base = os.path.basename(name).upper()
        if base == ERROR_LOG:
            card.errors += logs.read_error_log(_text(data))
        elif base == FLOAT_LOG:
            card.float_log = logs.read_float_log(_text(data))
        elif base not in NOT_DATA and datafile.looks_like_data_file(data):
            deployments, orphans = datafile.read_text(_text(data), name)
            card.deployments += deployments
            card.problems += [f"{name}: {p}" for p in orphans]
            card.files.append(name)
    for number, deployment in enumerate(card.deployments, 1):
        deployment.number = number
    return card


def select(card, number):
    """The deployments to work on: all, or the one numbered (1-based, as `list` shows them)."""
    if number is None:
        return card.deployments
    if not 1 <= number <= len(card.deployments):
        raise SourceError(f"{card.name}: no deployment {number} (it has {len(card.deployments)})")
    return [card.deployments[number - 1]]
