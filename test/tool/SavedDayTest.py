#!/usr/bin/env python3
"""SavedDayTest.py BRELO SOAK: the timeline of a history that the soak has saved."""

import os
import subprocess
import sys
import tempfile
import unittest

from check_timeline import check

BRELO, SOAK = sys.argv[1:3]
del sys.argv[1:3]


class SavedDayTest(unittest.TestCase):
    def testIsWholeAndOfBothBackends(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        saved, file = (os.path.join(folder, name) for name in ('saved', 'trace.json'))
        subprocess.run([SOAK, '--hours', '0.25', '--history', saved], check=True, stdout=subprocess.DEVNULL)
        subprocess.run([BRELO, 'timeline', '--from', saved, '-o', file], check=True, timeout=120)
        with open(file, encoding='utf-8') as text:
            found = check(text.read())
        self.assertEqual((found['processes'], found['lost']), (2, 0))
        self.assertGreater(found['flows'], 1000)


if __name__ == '__main__':
    unittest.main()
