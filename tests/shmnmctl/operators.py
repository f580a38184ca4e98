"""Operators: users who are neither administrators nor the cluster's user (Windows)."""
import subprocess

import support
from support import ToolTest

USERS = "S-1-5-32-545"


class OperatorTest(ToolTest):
    def cluster_of_the_system(self, readers=USERS):
        """A cluster whose region and lock belong to the system, made with this group of readers."""
        self.environment["KZMUTIL_READERS"] = readers
        api = self.cluster()
        given = subprocess.run(support.program("as_operator") + ["--give-away"], env=self.environment, capture_output=True, text=True)
        self.assertEqual(given.returncode, 0, given)
        self.securities = given.stdout.split()
        return api

    def as_operator(self, name):
        """The command line by which an operator starts a program of the build."""
        return support.program("as_operator") + support.native_program(name)
