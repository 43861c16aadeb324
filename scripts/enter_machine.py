"""A shell, or the command that the arguments give, inside the private machine that runs now."""

import os
import sys

from private_machine import command_inside, running_machines


def main():
    machines = running_machines()
    if not machines:
        sys.exit("no private machine is running; \"./dev run\" starts one")
    pid, directory = machines[-1]
    if len(machines) > 1:
        print(f"{len(machines)} machines are running; entering {directory}", file=sys.stderr)
    command = command_inside(pid, sys.argv[1:] or ["sh", "-i"])
    os.execvp(command[0], command)


main()
