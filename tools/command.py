# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""How the scripts say what is wrong: in one line, and with an exit status other than 0."""

import argparse
import os
import subprocess
import sys


class Problem(Exception):
    """What ends the run, in one line."""


class Misuse(Problem):
    """A wrong argument."""


def say(speaker, problem):
    print(f"{speaker}: {problem}", file=sys.stderr, flush=True)


class OneLineParser(argparse.ArgumentParser):
    """For a command of ./dev, or a script whose name is given."""

    def __init__(self, prog, description):
        super().__init__(prog=prog, description=description, allow_abbrev=False,
                         formatter_class=argparse.RawDescriptionHelpFormatter)

    def error(self, message):
        say(self.prog.split(" --")[0].replace("./dev ", "dev: "), message)
        sys.exit(2)


def run(speaker, main):
    """Ends the script with what its work returns."""
    try:
        sys.exit(main())
    except Misuse as misuse:
        say(speaker, misuse)
        sys.exit(2)
    except BrokenPipeError:
        # Whoever reads has read enough. Nothing is to be written at the end, either.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    except subprocess.CalledProcessError as error:
        why = (error.stderr or "").strip().splitlines()
        say(speaker, why[-1] if why else f"{error.cmd[0]} ended with status {error.returncode}")
    except (Problem, OSError, UnicodeDecodeError, subprocess.SubprocessError) as problem:
        say(speaker, problem)
    except KeyboardInterrupt:
        say(speaker, "interrupted")
        sys.exit(130)
    sys.exit(1)
