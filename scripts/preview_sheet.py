#!/usr/bin/env python3
"""Shows the previews of the sample account's pictures on one sheet.

    scripts/preview_sheet.py [--build build/release] OUT.png

Starts a service of its own, links its sample account, asks kzv for a preview of each file in /Photos, and renders the
sheet with rsvg-convert (Debian's librsvg2-bin).
"""

import argparse
import base64
import json
import os
import pathlib
import subprocess
import tempfile
import urllib.request
from xml.sax.saxutils import escape

COLUMNS, CELL, PICTURE_HEIGHT, CELL_HEIGHT, GAP = 4, 200, 200, 236, 16
PATIENCE_SECONDS = 60


def start(arguments, environment):
    return subprocess.Popen(arguments, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)


def link(kzv, environment):
    linking = start([kzv, "--quiet", "link", "--no-browser"], environment)
    try:
        urllib.request.urlopen(linking.stdout.readline().strip(), timeout=PATIENCE_SECONDS).read()
        linking.communicate(timeout=PATIENCE_SECONDS)
        if linking.returncode:
            raise SystemExit("the sample account could not be linked")
    finally:
        linking.kill()


def previews(kzv, environment, folder):
    """(path, width, height, PNG) of each file that has a preview."""
    def run(*arguments):
        return subprocess.run([kzv, "--json", *arguments], env=environment, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True, timeout=PATIENCE_SECONDS, check=False)

    picture = folder / "preview.png"
    for line in run("ls", "-R", "/Photos").stdout.splitlines():
        item = json.loads(line)
        answer = None if item["dir"] else run("preview", item["path"], "--out", str(picture))
        if answer and answer.returncode == 0:
            size = json.loads(answer.stdout)
            yield item["path"], size["width"], size["height"], picture.read_bytes()


def sheet(pictures):
    parts = []
    for index, (path, width, height, png) in enumerate(pictures):
        left, top = GAP + index % COLUMNS * (CELL + GAP), GAP + index // COLUMNS * CELL_HEIGHT
        parts.append(f'<image x="{left}" y="{top}" width="{CELL}" height="{PICTURE_HEIGHT}" '
                     f'href="data:image/png;base64,{base64.b64encode(png).decode()}"/>')
        for line, text in enumerate((path, f"{width} × {height}")):
            parts.append(f'<text x="{left + CELL // 2}" y="{top + PICTURE_HEIGHT + 12 + 13 * line}" font-size="10" '
                         f'fill="#333333" font-family="sans-serif" text-anchor="middle">{escape(text)}</text>')
    width = COLUMNS * (CELL + GAP) + GAP
    height = -(-len(pictures) // COLUMNS) * CELL_HEIGHT + GAP
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}">\n'
            f'<rect width="{width}" height="{height}" fill="#ffffff"/>\n' + "\n".join(parts) + "\n</svg>\n")


def main():
    parser = argparse.ArgumentParser(description="Show the previews of the sample account on one sheet.")
    parser.add_argument("--build", type=pathlib.Path, default=pathlib.Path("build/release"), help="a build folder")
    parser.add_argument("out", type=pathlib.Path, help="the sheet, a PNG")
    arguments = parser.parse_args()
    kzv = str(arguments.build / "bin/kzv")
    with tempfile.TemporaryDirectory(prefix="kzv-previews-") as home:
        environment = {**os.environ, "KZV_HOME": home, "KZV_TOKEN_STORE": "file", "KZV_SIGN_IN_PORT": "0"}
        service = start([str(arguments.build / "bin/kzv-service"), "--seed", "sample", "--approve", "auto"], environment)
        try:
            environment["KZV_SERVICE_URL"] = service.stdout.readline().strip().removeprefix("listening on ")
            link(kzv, environment)
            found = list(previews(kzv, environment, pathlib.Path(home)))
            subprocess.run(["rsvg-convert", "-o", str(arguments.out)], input=sheet(found), text=True, check=True)
        finally:
            service.terminate()
            service.wait(PATIENCE_SECONDS)
    print(f"{len(found)} previews in {arguments.out}")


if __name__ == "__main__":
    main()
