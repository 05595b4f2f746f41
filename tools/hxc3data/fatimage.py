"""Reading files straight from an image of a board's microSD card, without mounting it.

A card holds a FAT12, FAT16 or FAT32 volume, either from its first sector on (as the board formats
it) or inside the first FAT partition of an MBR partition table (as a PC may format it). Cards come
back from sea after power cuts and from PCs after edits, so nothing on them is trusted: a damaged
cluster chain or a cut-short image gives what can still be read, and a warning naming the file.

Images are read a sector or a cluster at a time (a board's image is a 256 MiB sparse file), never
whole.
"""

import dataclasses
import datetime
import re
import struct

# The boot sector and the MBR are read as 512 bytes, whatever the volume's own sector size: all
# their fields and the 0x55AA signature lie within the first 512 bytes.
BOOT_SECTOR = 512

# MBR partition types that hold a FAT volume: FAT12, FAT16 below 32 MiB, FAT16, FAT32 (CHS),
# FAT32 (LBA), FAT16 (LBA).
FAT_PARTITION_TYPES = (0x01, 0x04, 0x06, 0x0B, 0x0C, 0x0E)
GPT_PROTECTIVE = 0xEE

ATTR_VOLUME_LABEL = 0x08
ATTR_DIRECTORY = 0x10
ATTR_LONG_NAME = 0x0F  # read-only, hidden, system and volume label together mark an LFN entry
DIR_ENTRY = 32
DELETED = 0xE5
LFN_LAST = 0x40  # the ordinal flag of a long name's last (first stored) entry

# Where the 13 UTF-16 characters of an LFN entry lie within it.
LFN_CHAR_SLICES = (slice(1, 11), slice(14, 26), slice(28, 32))

# FAT types by the count of data clusters, the only test that decides it.
FAT12_MAX_CLUSTERS = 4084
FAT16_MAX_CLUSTERS = 65524

FAT_BLOCK = 32768  # how much of the FAT is read and kept at a time
FAT_BLOCKS_KEPT = 64


class CardError(Exception):
    """The file is not a card image that can be read, or does not hold what was asked for."""


@dataclasses.dataclass(frozen=True)
class Entry:
    """A file or directory on the card.

    name is the long name where there is a valid one, else the short name (in lower case where
    the entry says so); short_name is the 8.3 name as stored, e.g. "UVSCAL.CSV"; path joins the
    names from the root with "/"; mtime is the last write as a naive datetime in whatever time
    the writer kept, or None where the entry has no valid one.
    """

    name: str
    short_name: str
    path: str
    size: int
    mtime: datetime.datetime | None
    is_dir: bool
    cluster: int = dataclasses.field(default=0, repr=False)  # the first cluster, 0 for none


def is_card_image(path):
    """Whether path is a card image this module can read.

    False for anything else that can be read (a text file, an empty file, a GPT disk); an
    unreadable path raises OSError as open() does.
    """
    try:
        with CardImage(path):
            return True
    except CardError:
        return False


def _read_at(file, position, length):
    """Up to length bytes from position: fewer where the file ends."""
    file.seek(position)
    return file.read(length)


def _boot_sector_problem(sector):
    """Why a sector is not a FAT boot sector, or None when its BPB looks sound."""
    if len(sector) < BOOT_SECTOR:
        return f"the image ends inside the boot sector ({len(sector)} bytes)"
    if sector[510:512] != b"\x55\xaa":
        return "no 0x55AA signature"
    if sector[0] not in (0xEB, 0xE9):
        return f"no jump instruction (first byte 0x{sector[0]:02X})"
    sector_size, cluster_sectors, reserved, fats = struct.unpack_from("<HBHB", sector, 11)
    if sector_size not in (512, 1024, 2048, 4096):
        return f"{sector_size} bytes per sector"
    if cluster_sectors == 0 or cluster_sectors & (cluster_sectors - 1):
        return f"{cluster_sectors} sectors per cluster"
    if reserved == 0:
        return "no reserved sectors"
    if fats == 0:
        return "no FATs"
    return None


def _partition_table(sector):
    """The used entries of an MBR's partition table as (number, type, first sector), or None
    when bytes 446..509 cannot be a table (a status byte other than 0x00 or 0x80)."""
    partitions = []
    for number in range(1, 5):
        status, kind, first = struct.unpack_from("<B3xB3xI", sector, 446 + 16 * (number - 1))
        if status not in (0x00, 0x80):
            return None
        if kind:
            partitions.append((number, kind, first))
    return partitions


def _find_volume(file):
    """The byte offset of the card's FAT volume: 0 for a card formatted without partitions,
    else the start of the first FAT partition."""
    sector = _read_at(file, 0, BOOT_SECTOR)
    # A boot sector wins over a partition table: some formatters write a table into the
    # boot sector of an unpartitioned card.
    problem = _boot_sector_problem(sector)
    if problem is None:
        return 0
    if len(sector) < BOOT_SECTOR or sector[510:512] != b"\x55\xaa":
        raise CardError(f"not a card image: {problem}")
    partitions = _partition_table(sector)
    if not partitions:
        raise CardError(f"not a card image: no FAT boot sector ({problem}) and no partition table")
    if any(kind == GPT_PROTECTIVE for _, kind, _ in partitions):
        raise CardError("a GPT-partitioned card (protective MBR): only MBR partition tables can be read")
    for number, kind, first in partitions:
        if kind in FAT_PARTITION_TYPES:
            return _partition_volume(file, number, kind, first)
    kinds = ", ".join(f"0x{kind:02X}" for _, kind, _ in partitions)
    raise CardError(f"no FAT partition on the card (partition types {kinds})")


def _partition_volume(file, number, kind, first):
    """The byte offset of the FAT volume in a partition that starts at sector `first`."""
    # The table counts in the card's logical sectors. Cards use 512 bytes; for anything larger
    # only the volume's own boot sector can confirm the size.
    problem = None
    for sector_size in (512, 1024, 2048, 4096):
        sector = _read_at(file, first * sector_size, BOOT_SECTOR)
        found = _boot_sector_problem(sector)
        if found is None and struct.unpack_from("<H", sector, 11)[0] in (512, sector_size):
            return first * sector_size
        problem = problem or found
    raise CardError(f"partition {number} (type 0x{kind:02X}) holds no FAT volume: {problem}")


def _short_name(record):
    """An entry's 8.3 name as stored ("NAME.EXT", padding removed) and as shown where it has no
    long name (the base or extension in lower case where the entry's case bits say so)."""
    base, ext = record[0:8], record[8:11]
    if base[0] == 0x05:  # a name that really starts with 0xE5, escaped so as not to read as deleted
        base = b"\xe5" + base[1:]
    base = base.decode("cp437").rstrip(" ")
    ext = ext.decode("cp437").rstrip(" ")
    shown_base = base.lower() if record[12] & 0x08 else base
    shown_ext = ext.lower() if record[12] & 0x10 else ext
    if not ext:
        return base, shown_base
    return f"{base}.{ext}", f"{shown_base}.{shown_ext}"


def _short_name_checksum(record):
    """The checksum of an entry's 11 name bytes that each of its LFN entries carries."""
    total = 0
    for byte in record[0:11]:
        total = (((total & 1) << 7) + (total >> 1) + byte) & 0xFF
    return total


def _timestamp(date, time):
    """A FAT date and time as a naive datetime, or None where they are not a real moment."""
    if date == 0:
        return None
    try:
        return datetime.datetime(1980 + (date >> 9), (date >> 5) & 0x0F, date & 0x1F,
                                 time >> 11, (time >> 5) & 0x3F, (time & 0x1F) * 2)
    except ValueError:
        return None


class _LongName:
    """Collects the LFN entries before a short entry and checks they belong to it.

    A long name is stored last part first, in entries numbered N (flagged as the last) down to 1,
    each carrying the checksum of its short entry's name. Anything out of order, or a checksum
    that does not match, means the long name belongs to an entry since overwritten (a PC edit, a
    write cut short), so it is dropped and the short name used.
    """

    def __init__(self):
        self.parts = []
        self.checksum = None

    def add(self, record):
        ordinal, checksum = record[0] & 0x1F, record[13]
        if record[0] & LFN_LAST:
            self.parts, self.checksum = [record], checksum
        elif self.parts and checksum == self.checksum and ordinal == (self.parts[-1][0] & 0x1F) - 1:
            self.parts.append(record)
        else:
            self.reset()

    def reset(self):
        self.parts = []

    def take(self, record):
        """The long name of the short entry `record`, or None; starts afresh either way."""
        parts, self.parts = self.parts, []
        if not parts or parts[-1][0] & 0x1F != 1 or self.checksum != _short_name_checksum(record):
            return None
        raw = b"".join(part[piece] for part in reversed(parts) for piece in LFN_CHAR_SLICES)
        name = raw.decode("utf-16-le", "replace").split("\x00")[0]
        return name or None


class CardImage:
    """A card image opened for reading.

    fat_type is 12, 16 or 32; partition_offset the byte offset of the volume within the image;
    warnings the damage met so far, one line each, naming the file or directory it concerns.
    """

    def __init__(self, path):
        """Opens the image at path read-only and reads its boot sector; raises CardError when it
        is not a FAT card image (and OSError when it cannot be opened)."""
        self.path = str(path)
        self.warnings = []
        self._fat_blocks = {}
        self._file = open(path, "rb")
        try:
            self.partition_offset = _find_volume(self._file)
            self._read_boot_sector(_read_at(self._file, self.partition_offset, BOOT_SECTOR))
        except BaseException:
            self._file.close()
            raise

    def _read_boot_sector(self, sector):
        (sector_size, cluster_sectors, reserved, fats, root_entries, total16, _media,
         fat_size16) = struct.unpack_from("<HBHBHHBH", sector, 11)
        total32, fat_size32, flags, _version, root_cluster = struct.unpack_from("<IIHHI", sector, 32)
        if fat_size16 == 0 and root_entries:
            # Only FAT32 gives its FAT size further on, and FAT32 has no fixed root directory.
            raise CardError(f"bad BPB: no FAT size for a volume with {root_entries} root directory entries")
        fat_sectors = fat_size16 or fat_size32
        total = total16 or total32
        root_sectors = -(-root_entries * DIR_ENTRY // sector_size)
        data_sector = reserved + fats * fat_sectors + root_sectors
        if fat_sectors == 0 or total <= data_sector:
            raise CardError(f"bad BPB: {total} sectors cannot hold {fats} FATs of {fat_sectors} "
                            f"sectors after {reserved} reserved")
        clusters = (total - data_sector) // cluster_sectors
        self.fat_type = 12 if clusters <= FAT12_MAX_CLUSTERS else 16 if clusters <= FAT16_MAX_CLUSTERS else 32
        if (self.fat_type == 32) != (root_entries == 0):
            raise CardError(f"bad BPB: {clusters} clusters (FAT{self.fat_type}) "
                            f"with {root_entries} fixed root directory entries")

        active = 0
        if self.fat_type == 32 and flags & 0x80:
            # Mirroring is off: only the FAT the low bits name is kept up to date.
            active = flags & 0x0F if flags & 0x0F < fats else 0
        self.sector_size = sector_size
        self.cluster_size = sector_size * cluster_sectors
        self._fat_start = self.partition_offset + (reserved + active * fat_sectors) * sector_size
        self._root_start = self.partition_offset + (reserved + fats * fat_sectors) * sector_size
        self._root_size = root_entries * DIR_ENTRY
        self._data_start = self.partition_offset + data_sector * sector_size
        # Clusters are numbered from 2; one the FAT has no entry for cannot be used either.
        self._last_cluster = min(clusters + 1, fat_sectors * sector_size * 8 // self.fat_type - 1)
        self._end_of_chain = {12: 0xFF8, 16: 0xFFF8, 32: 0x0FFFFFF8}[self.fat_type]
        self._root_cluster = root_cluster if self.fat_type == 32 else 0
        if self.fat_type == 32 and not 2 <= root_cluster <= self._last_cluster:
            raise CardError(f"bad BPB: root directory at cluster {root_cluster}, "
                            f"outside clusters 2..{self._last_cluster}")

    def close(self):
        self._file.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    # The FAT and cluster chains.

    def _fat_bytes(self, offset, length):
        """length bytes of the FAT from offset, or None where the image ends before them."""
        first, last = offset // FAT_BLOCK, (offset + length - 1) // FAT_BLOCK
        data = b"".join(self._fat_block(block) for block in range(first, last + 1))
        wanted = data[offset - first * FAT_BLOCK:][:length]
        return wanted if len(wanted) == length else None

    def _fat_block(self, block):
        if block not in self._fat_blocks:
            if len(self._fat_blocks) >= FAT_BLOCKS_KEPT:
                self._fat_blocks.clear()
            self._fat_blocks[block] = _read_at(self._file, self._fat_start + block * FAT_BLOCK, FAT_BLOCK)
        return self._fat_blocks[block]

    def _fat_entry(self, cluster):
        """The FAT's entry for a cluster, or None where the image ends inside the FAT."""
        if self.fat_type == 12:
            # Two 12-bit entries share three bytes: an even cluster's entry is the low 12 bits of
            # the 16 at its offset, an odd one's the high 12.
            raw = self._fat_bytes(cluster + cluster // 2, 2)
            if raw is None:
                return None
            value = int.from_bytes(raw, "little")
            return value >> 4 if cluster & 1 else value & 0xFFF
        raw = self._fat_bytes(cluster * self.fat_type // 8, self.fat_type // 8)
        if raw is None:
            return None
        return int.from_bytes(raw, "little") & 0x0FFFFFFF  # FAT32's top 4 bits are not the link

    def _chain(self, first, limit=None):
        """The clusters of the chain from `first` (at most `limit` of them) and, where the chain
        is damaged, why it stopped where it did (else None)."""
        clusters, seen = [], set()
        cluster = first
        while limit is None or len(clusters) < limit:
            if not 2 <= cluster <= self._last_cluster:
                return clusters, f"cluster {cluster} in its chain is outside the volume"
            if cluster in seen:
                return clusters, f"its cluster chain loops back to cluster {cluster}"
            seen.add(cluster)
            clusters.append(cluster)
            link = self._fat_entry(cluster)
            if link is None:
                return clusters, "the image ends inside the FAT"
            if link >= self._end_of_chain:
                return clusters, None
            if link == self._end_of_chain - 1:
                return clusters, f"cluster {cluster} is marked bad"
            if link == 0:
                return clusters, f"its cluster chain ends on cluster {cluster}, which the FAT marks free"
            cluster = link
        return clusters, None

    def _read_clusters(self, clusters):
        """The bytes of clusters in turn, and whether all were there (the image may end first)."""
        pieces = []
        for cluster in clusters:
            piece = _read_at(self._file, self._data_start + (cluster - 2) * self.cluster_size, self.cluster_size)
            pieces.append(piece)
            if len(piece) < self.cluster_size:
                return b"".join(pieces), False
        return b"".join(pieces), True

    def _warn(self, message):
        if message not in self.warnings:
            self.warnings.append(message)

    # Directories.

    def _directory_bytes(self, directory):
        """The raw entries of a directory (None for the root)."""
        if directory is None and self.fat_type != 32:
            data = _read_at(self._file, self._root_start, self._root_size)
            if len(data) < self._root_size:
                self._warn("root directory: the image ends inside it")
            return data
        name = f"{directory.path}/" if directory else "root directory"
        clusters, problem = self._chain(directory.cluster if directory else self._root_cluster)
        data, complete = self._read_clusters(clusters)
        if not complete:
            problem = "the image ends inside it"
        if problem:
            self._warn(f"{name}: {problem}; it may list fewer files than it holds")
        return data

    def _entries(self, directory):
        """The entries of a directory (None for the root), without deleted entries, volume
        labels, "." and ".."."""
        data = self._directory_bytes(directory)
        prefix = f"{directory.path}/" if directory else ""
        entries, long_name = [], _LongName()
        for offset in range(0, len(data) - DIR_ENTRY + 1, DIR_ENTRY):
            record = data[offset:offset + DIR_ENTRY]
            if record[0] == 0:  # no entry in use from here on
                break
            attributes = record[11]
            if record[0] == DELETED:
                long_name.reset()
            elif attributes & 0x3F == ATTR_LONG_NAME:
                long_name.add(record)
            elif attributes & ATTR_VOLUME_LABEL or record[0:1] == b".":
                long_name.reset()
            else:
                entries.append(self._entry(record, long_name.take(record), prefix))
        return entries

    def _entry(self, record, long_name, prefix):
        short_name, shown_name = _short_name(record)
        high, time, date, low, size = struct.unpack_from("<HHHHI", record, 20)
        is_dir = bool(record[11] & ATTR_DIRECTORY)
        name = long_name or shown_name
        return Entry(name=name, short_name=short_name, path=prefix + name, size=0 if is_dir else size,
                     mtime=_timestamp(date, time), is_dir=is_dir,
                     # FAT12 and FAT16 leave the high half to other uses.
                     cluster=(high << 16 if self.fat_type == 32 else 0) | low)

    def listdir(self, path=""):
        """The files and directories in the directory at path ("" for the root)."""
        if not _components(path):
            return self._entries(None)
        directory = self._find(path)
        if not directory.is_dir:
            raise CardError(f"{path} on the card is a file, not a directory")
        return self._entries(directory)

    def files(self):
        """Every regular file on the card, in all directories, as Entry objects."""
        found = []
        self._walk(None, found, {self._root_cluster})
        return found

    def _walk(self, directory, found, visited):
        for entry in self._entries(directory):
            if not entry.is_dir:
                found.append(entry)
            elif entry.cluster in visited or entry.cluster == 0:
                # A directory that is its own ancestor, or one with no clusters at all.
                self._warn(f"{entry.path}/: a damaged directory entry (cluster {entry.cluster}); skipped")
            else:
                visited.add(entry.cluster)
                self._walk(entry, found, visited)

    # Files.

    def _find(self, path):
        """The entry at path, each component matching a long or a short name in any case."""
        entry = None
        for component in _components(path):
            if entry is not None and not entry.is_dir:
                raise CardError(f"no file {path} on the card")
            entry = _match(self._entries(entry), component)
            if entry is None:
                raise CardError(f"no file {path} on the card")
        if entry is None:
            raise CardError(f"no file {path!r} on the card")
        return entry

    def read(self, path):
        """The bytes of the file at path, e.g. "DATA/D0001.CSV".

        Where the file is damaged, what can be read of it, and a warning.
        """
        entry = self._find(path)
        if entry.is_dir:
            raise CardError(f"{path} on the card is a directory, not a file")
        if entry.size == 0:
            return b""
        if entry.cluster == 0:
            self._warn(f"{entry.path}: {entry.size} bytes but no clusters; read 0 bytes")
            return b""
        # A chain longer than the file (clusters lost to an interrupted write) is cut to its size.
        wanted = -(-entry.size // self.cluster_size)
        clusters, problem = self._chain(entry.cluster, wanted)
        data, complete = self._read_clusters(clusters)
        if not complete:
            problem = "the image ends inside it"
        data = data[:entry.size]
        if len(data) < entry.size:
            self._warn(f"{entry.path}: {problem or 'its cluster chain ends early'}; "
                       f"read {len(data)} of {entry.size} bytes")
        return data


def _components(path):
    return [part for part in re.split(r"[/\\]", path) if part]


def _match(entries, component):
    """The entry whose long name, else whose short name, is component, in any case."""
    wanted = component.casefold()
    return (next((entry for entry in entries if entry.name.casefold() == wanted), None)
            or next((entry for entry in entries if entry.short_name.casefold() == wanted), None))
