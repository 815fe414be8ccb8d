"""The example script of docs/python.md, run as a user runs it, prints what the page says."""
import os
import re
import subprocess
import sys
import unittest

DOC = os.path.join(os.environ["VARNEL_SOURCE_DIR"], "docs", "python.md")


def doc_blocks():
    with open(DOC, encoding="utf-8") as f:
        text = f.read()
    script = re.search(r"<!-- example: begin -->\n```python\n(.*?)```\n<!-- example: end -->",
                       text, re.S).group(1)
    output = re.search(r"<!-- example: end -->\n\nIt prints:\n\n```\n(.*?)```", text, re.S).group(1)
    return script, output


class DocExample(unittest.TestCase):
    def test_example_prints_what_the_page_shows(self):
        script, output = doc_blocks()
        result = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True,
                                timeout=30)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stdout, output)


if __name__ == "__main__":
    unittest.main()
