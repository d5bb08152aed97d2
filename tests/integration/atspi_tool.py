"""Finds and presses the agent's controls through the accessibility bus (AT-SPI), as a screen
reader would. Run inside the desktop session whose bus the agent uses, as the agent's user:

    atspi_tool.py ready                       start the registry before the agent starts
    atspi_tool.py press NAME [--description PREFIX] [--timeout S]
    atspi_tool.py wait NAME [--role ROLE] [--timeout S]
    atspi_tool.py names                       every named object, one per line (for debugging)

`press` and `wait` print the found object's description and exit 0, or exit 1 after the
timeout."""
import argparse
import sys
import time

import pyatspi


def objects(node, depth=0):
    if depth > 25:
        return
    try:
        yield node
        for index in range(node.childCount):
            child = node.getChildAtIndex(index)
            if child is not None:
                yield from objects(child, depth + 1)
    except Exception:  # an object that went away while walking
        return


def showing(node):
    try:
        return node.getState().contains(pyatspi.STATE_SHOWING)
    except Exception:
        return False


def find(name, role=None, description=None):
    desktop = pyatspi.Registry.getDesktop(0)
    for index in range(desktop.childCount):
        for node in objects(desktop.getChildAtIndex(index)):
            try:
                if node.name != name or (role and node.getRoleName() != role):
                    continue
                if description and not (node.description or "").startswith(description):
                    continue
            except Exception:
                continue
            if showing(node):
                return node
    return None


def wait_for(name, role, description, timeout):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        node = find(name, role, description)
        if node is not None:
            return node
        time.sleep(0.25)
    return None


def main(argv):
    parser = argparse.ArgumentParser()
    parser.add_argument("command", choices=["ready", "press", "wait", "names"])
    parser.add_argument("name", nargs="?")
    parser.add_argument("--role")
    parser.add_argument("--description")
    parser.add_argument("--timeout", type=float, default=60.0)
    args = parser.parse_args(argv)
    if args.command == "ready":
        pyatspi.Registry.getDesktop(0)
        return 0
    if args.command == "names":
        desktop = pyatspi.Registry.getDesktop(0)
        for index in range(desktop.childCount):
            for node in objects(desktop.getChildAtIndex(index)):
                if node.name:
                    print(f"{node.getRoleName()}: {node.name} | {node.description}")
        return 0
    role = args.role or ("push button" if args.command == "press" else None)
    node = wait_for(args.name, role, args.description, args.timeout)
    if node is None:
        print(f"no showing {role or 'object'} named {args.name!r}", file=sys.stderr)
        return 1
    description = node.description or ""  # read first: a press may remove the object
    if args.command == "press":
        actions = node.queryAction()
        for index in range(actions.nActions):
            if actions.getName(index) in ("Press", "press", "click"):
                actions.doAction(index)
                break
        else:
            actions.doAction(0)
    print(description)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
