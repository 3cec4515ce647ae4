#!/usr/bin/env python3
"""Reads the mutant list of tools/mutate.sh and applies one mutant.

  mutants.py names LIST            every mutant's name, one a line
  mutants.py check LIST ROOT       each search text occurs once in its file
  mutants.py file LIST NAME        the file the mutant changes
  mutants.py fault LIST NAME       what the mutant breaks
  mutants.py apply LIST NAME ROOT  puts the mutant into its file
"""
import sys


def parse(path):
    mutants, current = [], None
    with open(path, encoding="utf-8") as listing:
        for number, line in enumerate(listing, 1):
            line = line.rstrip("\n")
            if line.startswith("== "):
                words = line[3:].split()
                if len(words) != 2:
                    sys.exit(f"{path}:{number}: expected '== <name> <file>'")
                current = {"name": words[0], "file": words[1], "fault": "", "search": [], "replace": []}
                mutants.append(current)
            elif current is not None and (line[:2] in ("? ", "- ", "+ ") or line in ("-", "+")):
                key = {"?": "fault", "-": "search", "+": "replace"}[line[0]]
                if key == "fault":
                    current["fault"] = line[2:]
                else:
                    current[key].append(line[2:])
            elif line.strip() and not line.startswith("#"):
                sys.exit(f"{path}:{number}: not a mutant line: {line}")
    names = [m["name"] for m in mutants]
    if len(set(names)) != len(names):
        sys.exit(f"{path}: a mutant name is used twice")
    return mutants


def find(mutants, name):
    for m in mutants:
        if m["name"] == name:
            return m
    sys.exit(f"no mutant named {name}")


def located(root, m):
    """The file's text and where the search text stands, or an error."""
    search = "\n".join(m["search"])
    if not search:
        return None, None, f"{m['name']}: no search text"
    try:
        with open(f"{root}/{m['file']}", encoding="utf-8") as source:
            text = source.read()
    except OSError as error:
        return None, None, f"{m['name']}: {error}"
    count = text.count(search)
    if count != 1:
        return None, None, f"{m['name']}: search text found {count} times in {m['file']}"
    return text, text.index(search), None


def main(argv):
    if len(argv) < 3:
        sys.exit(__doc__)
    command, mutants = argv[1], parse(argv[2])
    if command == "names":
        print("\n".join(m["name"] for m in mutants))
    elif command == "check":
        problems = [p for m in mutants for p in [located(argv[3], m)[2]] if p]
        print("\n".join(problems), file=sys.stderr)
        return 1 if problems else 0
    elif command in ("file", "fault"):
        print(find(mutants, argv[3])[command])
    elif command == "apply":
        m, root = find(mutants, argv[3]), argv[4]
        text, at, problem = located(root, m)
        if problem:
            sys.exit(problem)
        search, replace = "\n".join(m["search"]), "\n".join(m["replace"])
        with open(f"{root}/{m['file']}", "w", encoding="utf-8") as source:
            source.write(text[:at] + replace + text[at + len(search):])
    else:
        sys.exit(__doc__)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
