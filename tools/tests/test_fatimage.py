"""Reading card images: cards made by mkfs.fat and mtools in each FAT type and layout, damaged
cards, things that are not cards, and a card the board's firmware formatted."""

import datetime
import os
import random
import re
import struct
import subprocess
import unittest

from hxc3data.fatimage import CardError, CardImage, is_card_image
from tests.support import BoardTest

MTOOLS_ENV = dict(os.environ, MTOOLS_SKIP_CHECK="1")
CRLF_TEXT = b"time,ph,temp\r\n2026-01-01 00:00:00,8.0412,12.31\r\n\r\nlast line, no end"
STAMP = datetime.datetime(2025, 6, 30, 13, 45, 58)


def tool(*cmd):
    return subprocess.run(cmd, check=True, capture_output=True, stdin=subprocess.DEVNULL, env=MTOOLS_ENV).stdout


def mkfs(image, fat, size_kb, *options, offset=0):
    """A fresh FAT volume in a new image file, `offset` sectors in; returns the mtools drive."""
    tool("mkfs.fat", "-F", str(fat), "-C", *options, f"--offset={offset}", image, str(size_kb))
    sector = int(options[options.index("-S") + 1]) if "-S" in options else 512
    return f"{image}@@{offset * sector}" if offset else image


def write_mbr(image, *partitions):
    """Writes a partition table of (type, first sector, sectors) into the image's first sector."""
    table = b"".join(struct.pack("<B3xB3xII", 0, kind, first, count) for kind, first, count in partitions)
    with open(image, "r+b") as f:
        f.seek(446)
        f.write(table.ljust(64, b"\0") + b"\x55\xaa")


def set_next_free(drive, cluster=0xFFFFFFFF):
    """Sets a FAT32 volume's hint of where free clusters start (by default to none, so that
    mtools fills holes rather than allocating after the last file it wrote)."""
    image, _, offset = drive.partition("@@")
    offset = int(offset or 0)
    with open(image, "r+b") as f:
        f.seek(offset)
        boot = f.read(512)
        sector_size, fat16_size, fsinfo = (struct.unpack_from("<H", boot, at)[0] for at in (11, 22, 48))
        if fat16_size == 0:
            f.seek(offset + fsinfo * sector_size + 492)
            f.write(struct.pack("<I", cluster))


def runs(drive, name):
    """The runs of clusters mtools says a file has, as (first, last) pairs."""
    out = tool("mshowfat", "-i", drive, f"::{name}").decode()
    return [(int(a), int(b or a)) for a, b in re.findall(r"<(\d+)(?:-(\d+))?>", out)]


def pattern(size, seed):
    return random.Random(seed).randbytes(size)


class CardTest(BoardTest):

    def put(self, drive, files, where="::"):
        """Copies files ({name: bytes}) onto a card, each last written at STAMP."""
        paths = [os.path.join(self.dir, name) for name in files]
        for path, data in zip(paths, files.values()):
            with open(path, "wb") as f:
                f.write(data)
            os.utime(path, (STAMP.timestamp(), STAMP.timestamp()))
        tool("mcopy", "-m", "-i", drive, *paths, where)


class CardLayoutTest(CardTest):
    """The same files on FAT12, FAT16 and FAT32, each without and with a partition table."""

    def populate(self, drive):
        """Puts the test files on a card; returns their contents by path."""
        files = {"Calibration table.csv": CRLF_TEXT, "UVSCAL.CSV": b"wavelength,counts\n217.1,1234\n",
                 "notes.txt": b"deployed\n", "EMPTY.DAT": b""}
        self.put(drive, files)
        tool("mmd", "-i", drive, "::DATA")
        self.put(drive, {"Sample log 2026-01-01.csv": CRLF_TEXT * 3}, "::DATA")
        files["DATA/Sample log 2026-01-01.csv"] = CRLF_TEXT * 3

        # Free every other one of a row of one-cluster files: a big file written next must take the holes.
        self.put(drive, {f"PAD{i:02}.BIN": b"p" for i in range(24)})
        tool("mdel", "-i", drive, *(f"::PAD{i:02}.BIN" for i in range(0, 24, 2)))
        files.update({f"PAD{i:02}.BIN": b"p" for i in range(1, 24, 2)})
        set_next_free(drive)
        files["BIG.BIN"] = pattern(300000, 1)
        self.put(drive, {"BIG.BIN": files["BIG.BIN"]})
        self.assertGreater(len(runs(drive, "BIG.BIN")), 4, "BIG.BIN should be fragmented")
        return files

    def check_card(self, image, fat, offset, files):
        with CardImage(image) as card:
            self.assertEqual((card.fat_type, card.partition_offset), (fat, offset))
            entries = {entry.path: entry for entry in card.files()}
            self.assertEqual(set(entries), set(files))  # no label, deleted files, dirs, "." or ".."
            for path, data in files.items():
                self.assertEqual((entries[path].size, entries[path].mtime), (len(data), STAMP), path)
                self.assertEqual(card.read(path), data, path)
            self.assertEqual(entries["notes.txt"].short_name, "NOTES.TXT")
            self.assertEqual(entries["Calibration table.csv"].short_name, "CALIBR~1.CSV")
            # Either name in any case, in each component.
            self.assertEqual(card.read("data/SAMPLE~1.CSV"), CRLF_TEXT * 3)
            self.assertEqual(card.read("/Data/sample LOG 2026-01-01.CSV"), CRLF_TEXT * 3)
            self.assertEqual(card.read("calibr~1.csv"), CRLF_TEXT)
            for missing in ("NONE.CSV", "DATA/NONE.CSV", "NONE/BIG.BIN", "BIG.BIN/X", "/"):
                with self.assertRaisesRegex(CardError, "^no file"):
                    card.read(missing)
            with self.assertRaisesRegex(CardError, "is a directory"):
                card.read("DATA")
            self.assertEqual(card.warnings, [])

    def check_layouts(self, fat, size_kb, partition_type, *options):
        plain = os.path.join(self.dir, "plain.img")
        files = self.populate(mkfs(plain, fat, size_kb, "-n", "HXC3", *options))
        # A partition table in the boot sector does not make a card partitioned.
        write_mbr(plain, (0x0C, 100, 1000))
        self.assertTrue(is_card_image(plain))
        self.check_card(plain, fat, 0, files)

        # A Linux partition before the FAT one: the first FAT partition is the card's volume.
        parted = os.path.join(self.dir, "parted.img")
        files = self.populate(mkfs(parted, fat, size_kb, *options, offset=2048))
        write_mbr(parted, (0x83, 64, 1000), (partition_type, 2048, size_kb * 2))
        self.assertTrue(is_card_image(parted))
        self.check_card(parted, fat, 2048 * 512, files)

    def test_fat12(self):
        self.check_layouts(12, 2048, 0x01)

    def test_fat16(self):
        self.check_layouts(16, 16384, 0x06)

    def test_fat32(self):
        self.check_layouts(32, 40000, 0x0C, "-s", "1", "-f", "1")

    def test_large_sectors(self):
        """4096-byte sectors: the partition table counts in them too."""
        image = os.path.join(self.dir, "4k.img")
        files = self.populate(mkfs(image, 16, 65536, "-S", "4096", offset=8))
        write_mbr(image, (0x0E, 8, 16384))
        self.check_card(image, 16, 8 * 4096, files)

    def test_fat32_details(self):
        """Clusters past 65535, whose number needs the entry's high half, and a FAT32 volume
        that keeps only its second FAT up to date."""
        image = os.path.join(self.dir, "card.img")
        mkfs(image, 32, 40000, "-s", "1", "-f", "2")
        set_next_free(image, 70000)
        self.put(image, {"HIGH.BIN": pattern(3000, 4)})
        [(first, last)] = runs(image, "HIGH.BIN")
        self.assertGreater(first, 65535)
        with open(image, "r+b") as f:
            reserved = struct.unpack("<H", f.read(16)[14:16])[0]
            f.seek(reserved * 512 + 4 * first)
            f.write(bytes(4 * (last - first + 1)))  # gone from the first FAT only
            f.seek(40)
            f.write(struct.pack("<H", 0x81))  # mirroring off, FAT 1 active
        with CardImage(image) as card:
            self.assertEqual(card.read("high.bin"), pattern(3000, 4))
            self.assertEqual(card.warnings, [])


class DamagedCardTest(CardTest):
    """A FAT32 card with one FAT and 512-byte clusters, damaged as cards come back from sea."""

    def setUp(self):
        super().setUp()
        self.image = os.path.join(self.dir, "card.img")
        mkfs(self.image, 32, 40000, "-s", "1", "-f", "1")
        self.data = pattern(5 * 512, 2)
        self.put(self.image, {"LOG.CSV": self.data, "OTHER.CSV": b"other\n"})
        [(first, last)] = runs(self.image, "LOG.CSV")
        self.clusters = list(range(first, last + 1))
        with open(self.image, "rb") as f:
            self.fat_start = struct.unpack("<H", f.read(16)[14:16])[0] * 512

    def set_fat(self, cluster, link):
        """Sets a cluster's FAT entry; returns the one it had."""
        with open(self.image, "r+b") as f:
            f.seek(self.fat_start + 4 * cluster)
            old = f.read(4)
            f.seek(-4, os.SEEK_CUR)
            f.write(struct.pack("<I", link))
        return struct.unpack("<I", old)[0]

    def test_damaged_chains(self):
        c = self.clusters
        for damage, clusters, warning in (
                ({c[1]: 0}, 2, "ends on cluster .* free"),
                ({c[1]: 0x0FFFFFFF}, 2, "ends early"),
                ({c[2]: c[0]}, 3, "loops back"),
                ({c[1]: 0x0FFFFFF0}, 2, "outside the volume"),
                ({c[1]: 999999}, 2, "outside the volume"),
                ({c[1]: 0x0FFFFFF7}, 2, "marked bad"),
                # An interrupted write's clusters left linked on, damage and all, are not the file's.
                ({c[4]: c[4] + 100, c[4] + 100: 0x0FFFFFF0}, 5, None),
                # The top four bits of a FAT32 entry are not part of the link.
                ({c[0]: 0xF0000000 | c[1]}, 5, None)):
            with self.subTest(damage=damage):
                old = {cluster: self.set_fat(cluster, link) for cluster, link in damage.items()}
                with CardImage(self.image) as card:
                    self.assertEqual(card.read("LOG.CSV"), self.data[:512 * clusters])
                    self.assertEqual(len(card.warnings), 1 if warning else 0)
                    if warning:
                        self.assertRegex(card.warnings[0], f"^LOG.CSV: .*{warning}.*; read {512 * clusters} of 2560 bytes$")
                for cluster, link in old.items():
                    self.set_fat(cluster, link)

    def test_truncated_image(self):
        with open(self.image, "rb") as f:
            start = f.read().find(self.data[:64])
        os.truncate(self.image, start + 700)
        with CardImage(self.image) as card:
            self.assertEqual(sorted(entry.name for entry in card.files()), ["LOG.CSV", "OTHER.CSV"])
            self.assertEqual(card.read("LOG.CSV"), self.data[:700])
            self.assertEqual(card.read("OTHER.CSV"), b"")  # its cluster lies past the end
            self.assertEqual(card.warnings, ["LOG.CSV: the image ends inside it; read 700 of 2560 bytes",
                                             "OTHER.CSV: the image ends inside it; read 0 of 6 bytes"])

        # Cut inside the FAT: the card still opens, and says its root directory is gone.
        os.truncate(self.image, self.fat_start + 4096)
        with CardImage(self.image) as card:
            self.assertEqual(card.files(), [])
            self.assertRegex(card.warnings[0], "^root directory: the image ends inside it")

    def test_directory_loop(self):
        """A directory that lists its own parent is walked once."""
        tool("mmd", "-i", self.image, "::SUB", "::SUB/INNER")
        self.put(self.image, {"DEEP.CSV": b"deep\n"}, "::SUB/INNER")
        [(sub, _)] = runs(self.image, "SUB")
        with open(self.image, "r+b") as f:
            inner = f.read().find(b"INNER      \x10")
            f.seek(inner + 26)
            f.write(struct.pack("<H", sub))
        with CardImage(self.image) as card:
            self.assertEqual(sorted(entry.path for entry in card.files()), ["LOG.CSV", "OTHER.CSV"])
            self.assertEqual(card.warnings, [f"SUB/INNER/: a damaged directory entry (cluster {sub}); skipped"])

    def test_short_names_changed_on_disk(self):
        """A long name whose checksum no longer matches its short entry is not used; a short name
        starting 0x05 stands for one starting 0xE5, not for a deleted entry."""
        self.put(self.image, {"Calibration table.csv": b"cal\n"})
        with open(self.image, "r+b") as f:
            image = f.read()
            f.seek(image.find(b"CALIBR~1CSV"))
            f.write(b"CALIBX~1CSV")
            f.seek(image.find(b"OTHER   CSV"))
            f.write(b"\x05")
        with CardImage(self.image) as card:
            self.assertEqual({entry.name for entry in card.files()}, {"LOG.CSV", "CALIBX~1.CSV", "\u03c3THER.CSV"})
            self.assertEqual(card.read("calibx~1.csv"), b"cal\n")
            with self.assertRaisesRegex(CardError, "no file Calibration table.csv on the card"):
                card.read("Calibration table.csv")


class BootSectorTest(BoardTest):
    """What an image's first sectors say: not a card at all, partitions without a FAT volume, a
    bad BPB, the FAT type."""

    def write(self, name, data, *partitions):
        path = os.path.join(self.dir, name)
        with open(path, "wb") as f:
            f.write(data)
        if partitions:
            write_mbr(path, *partitions)
        return path

    def test_not_cards(self):
        bad_bpb = os.path.join(self.dir, "bad-bpb.img")
        mkfs(bad_bpb, 16, 16384)
        with open(bad_bpb, "r+b") as f:
            f.seek(22)
            f.write(bytes(2))  # no FAT size
        disk = bytes(1 << 20)
        for path, message in (
                (self.write("log.txt", b"2026-01-01 00:00:00 pH 8.04\n" * 100), "not a card image"),
                (self.write("empty", b""), "not a card image"),
                (self.write("garbage", pattern(65536, 3)), "not a card image"),
                (self.write("blank", bytes(510) + b"\x55\xaa"), "no FAT boot sector .* and no partition table"),
                (self.write("gpt", disk, (0xEE, 1, 2047)), "GPT"),
                (self.write("linux", disk, (0x83, 2048, 100000)), r"no FAT partition on the card \(partition types 0x83\)"),
                # A FAT partition past the image's end, as from a copy cut short.
                (self.write("cut", disk, (0x0C, 8192, 100000)), r"partition 1 \(type 0x0C\) holds no FAT volume"),
                (bad_bpb, "bad BPB: no FAT size")):
            with self.subTest(os.path.basename(path)):
                self.assertFalse(is_card_image(path))
                with self.assertRaisesRegex(CardError, message):
                    CardImage(path)

    def test_fat_type_by_cluster_count(self):
        """The count of data clusters alone decides the FAT type, right at the boundaries."""
        for clusters, fat_sectors, root_entries, fat in ((4084, 12, 512, 12), (4085, 12, 512, 16),
                                                         (65524, 256, 512, 16), (65525, 512, 0, 32)):
            with self.subTest(clusters=clusters):
                # One reserved sector, one FAT, one sector a cluster, the label saying FAT16.
                total = 1 + fat_sectors + root_entries * 32 // 512 + clusters
                boot = struct.pack("<3x8xHBHBHHBHHHII", 512, 1, 1, 1, root_entries, 0, 0xF8,
                                   0 if fat == 32 else fat_sectors, 63, 255, 0, total)
                boot += struct.pack("<IHHI", fat_sectors, 0, 0, 2) + b"FAT16   "
                image = self.write("card.img", (b"\xeb" + boot[1:]).ljust(510, b"\0") + b"\x55\xaa")
                os.truncate(image, total * 512)
                with CardImage(image) as card:
                    self.assertEqual(card.fat_type, fat)


class BoardCardTest(BoardTest):

    def test_card_the_firmware_formatted(self):
        board = os.path.join(self.dir, "board")
        os.mkdir(board)
        self.sim(board, "--fast", "--quiet", "--run-for", "1", "--time", "2026-01-01 00:00:00")
        image = os.path.join(board, "sdcard.img")
        with CardImage(image) as card:
            self.assertEqual((card.fat_type, card.partition_offset), (32, 0))
            self.assertIn("UVSCAL.CSV", [entry.path for entry in card.files()])
            data = card.read("UVSCAL.CSV")
            self.assertEqual(card.warnings, [])
        self.assertEqual(len(data), 3731)
        self.assertEqual(data, tool("mtype", "-i", image, "::UVSCAL.CSV"))


if __name__ == "__main__":
    unittest.main()
