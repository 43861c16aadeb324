"""Exchanges files and directories with links, over and over, until standard input ends.
Usage: racer.py [--remove FILE]... PLACE OTHER [PLACE OTHER]..."""

import argparse
import ctypes
import os
import select
import sys

AT_FDCWD, RENAME_EXCHANGE = -100, 2


def main():
    options = argparse.ArgumentParser()
    options.add_argument("--remove", action="append", default=[])
    options.add_argument("names", nargs="+")
    chosen = options.parse_args()
    names = [name.encode() for name in chosen.names]
    libc = ctypes.CDLL(None, use_errno=True)
    done, turns = 0, 0
    print("begun", flush=True)
    while not select.select([sys.stdin], [], [], 0)[0]:
        turns += 1
        for place, other in zip(names[::2], names[1::2]):
            if libc.renameat2(AT_FDCWD, place, AT_FDCWD, other, RENAME_EXCHANGE) == 0:
                done += 1
        for file in chosen.remove if turns % 100 == 0 else []:
            try:
                os.unlink(file)
            except OSError:
                pass
    print(done, flush=True)


main()
