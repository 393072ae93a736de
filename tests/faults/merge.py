#!/usr/bin/env python3
"""Puts the figures of one driver, which owns its key, into bench/reliability.json."""
import json
import os
import sys


def main():
    result, target = sys.argv[1:]
    figures = {}
    if os.path.exists(target):
        with open(target) as file:
            figures = json.load(file)
    with open(result) as file:
        figures.update(json.load(file))
    with open(target, "w") as file:
        json.dump(figures, file, indent=1)
        file.write("\n")


if __name__ == "__main__":
    main()
