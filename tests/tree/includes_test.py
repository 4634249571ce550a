#!/usr/bin/env python3
"""The check of #include lines, on a small tree with one fault at a time."""

import pathlib
import tempfile
import unittest

import includes

TABLE = """
low     -
high    low
tools/* high+
"""
TREE = {"low/Low.h": "", "high/High.h": '#include "low/Low.h"\n', "tools/a/A.cpp": "#include <vector>\n"}


def offences(files, table=TABLE):
    with tempfile.TemporaryDirectory() as folder:
        for name, text in {**TREE, **files}.items():
            path = pathlib.Path(folder, name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
        return includes.Check(pathlib.Path(folder), includes.Table(table)).run()


class IncludesTest(unittest.TestCase):
    def test_whatTheTableAllowsPasses(self):
        self.assertEqual(offences({
            "tools/a/B.cpp": '#include "high/High.h"\n#include "low/Low.h"\n#include "tools/b/deep/C.h"\n',
            "tools/b/deep/C.h": "",
            "build/other/x.cpp": '#include "high/High.h"\n', "build/other/CMakeCache.txt": ""}), [])

    def test_eachFaultIsNamedWithItsPlaceAndTheWayOut(self):
        for what, files, table, place, said in (
                ("an arrow back", {"low/Low.cpp": '\n#include "high/High.h"\n'}, TABLE,
                 "low/Low.cpp:2:", "low -> high: the table has no such arrow"),
                ("a folder nobody knows", {"new/N.cpp": ""}, TABLE, "new/N.cpp:", "give it a line"),
                ("a folder that is gone", {}, TABLE + "old -\n", "table:", "old has no sources"),
                ("a circle", {}, TABLE.replace("low     -", "low     tools"), "table:",
                 "low -> tools/* -> low: a circle"),
                ("a relative path", {"high/H.cpp": '#include "High.h"\n'}, TABLE,
                 "high/H.cpp:1:", '#include "high/High.h"'),
                ("quotes for others' headers", {"high/H.cpp": '#include "fmt/format.h"\n'}, TABLE,
                 "high/H.cpp:1:", "#include <fmt/format.h>"),
                ("brackets for ours", {"high/H.cpp": "#include <low/Low.h>\n"}, TABLE,
                 "high/H.cpp:1:", '#include "low/Low.h"')):
            with self.subTest(what):
                found = offences(files, table)
                self.assertEqual(len(found), 1, found)
                self.assertTrue(found[0].startswith(place) and said in found[0], found)


if __name__ == "__main__":
    unittest.main()
