"""systemd/application.service, as far as it can be looked at where systemd does not run. That the
library works under its filters of system calls and its limits, tests/process shows."""

import re
import subprocess
from typing import List

from support import GENEROUS, RECIPES, RecipeTest, recipe


class Services(RecipeTest):
    """The unit, with a program that is there."""

    def analyze(self, *options: str) -> "subprocess.CompletedProcess[str]":
        path = self.file("application.service", recipe("systemd/application.service", {
            "/usr/bin/application": "/bin/true"}))
        return subprocess.run(["systemd-analyze", *options, str(path)], check=False,
                              capture_output=True, text=True, timeout=GENEROUS)

    def test_systemd_understands_every_line(self) -> None:
        verified = self.analyze("verify", "--man=no")
        self.assertEqual((verified.returncode, verified.stderr), (0, ""))

    def test_it_may_do_little(self) -> None:
        reviewed = self.analyze("security", "--offline=true", "--threshold=20", "--no-pager")
        self.assertEqual(reviewed.returncode, 0, reviewed.stdout + reviewed.stderr)

    def test_it_has_the_filters_and_limits_that_are_tested(self) -> None:
        page = (RECIPES.parent / "docs" / "process.md").read_text()
        tested = re.search(r"```ini\n\[Service\]\n(.*?)```", page, re.DOTALL)
        assert tested is not None
        settings: List[str] = tested.group(1).splitlines()
        self.assertGreaterEqual(len(settings), 5)
        lines = recipe("systemd/application.service", {}).splitlines()
        for setting in settings:
            self.assertIn(setting, lines)
