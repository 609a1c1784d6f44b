#!/usr/bin/env python3
"""Draws the plug-in's pictures: one SVG for each icon name, all from the same page, folder and colours.

    ./make_icons.py                     writes the SVGs beside this script
    ./make_icons.py --sheet SHEET.svg   also writes a sheet of all pictures, as rendered, with their names

The bundle carries PNGs of 48 pixels, kept beside the SVGs so that a build needs no renderer. After a change, run
this and then (rsvg-convert is in Debian's librsvg2-bin):

    for svg in *.svg; do rsvg-convert -w 48 -h 48 "$svg" -o "${svg%.svg}.png"; done
    ./make_icons.py --sheet /tmp/icons.svg && rsvg-convert /tmp/icons.svg -o ../../docs/icons.png

Everything is drawn on a grid of 48 units, so one unit is one pixel: straight edges lie on whole units, which keeps
them sharp. Letters are drawn as strokes, because which fonts a renderer finds differs between machines. Pictures say
what a kind of file is for and never show a maker's mark: a package is a carton, a PDF carries its plain name.
"""

import argparse
import base64
import math
import pathlib

HERE = pathlib.Path(__file__).resolve().parent
SIZE = 48

WHITE = "#ffffff"
EDGE = "#8a96a4"
FOLD = "#d6dde5"
SLATE = "#56626f"
SILVER = "#a9b6c4"
BLUE = "#2f74cf"
PALE_BLUE = "#a9cdf3"
INDIGO = "#4b57b8"
PALE_INDIGO = "#98a3e6"
TEAL = "#12858f"
GREEN = "#2a9257"
PALE_GREEN = "#cfeadb"
AMBER = "#e39a1c"
ORANGE = "#dd6f1e"
PALE_ORANGE = "#fde6d2"
RED = "#d33b3b"
CRIMSON = "#b3224a"
PINK = "#e0718f"
PURPLE = "#8a46b8"
BROWN = "#85542d"
TAN = "#d8a566"
FOLDER_BACK = "#2c67ad"
FOLDER_FRONT = "#4b97e2"


def fill(path, colour):
    return f'<path d="{path}" fill="{colour}"/>'


def stroke(path, colour, width, cap="round"):
    return (f'<path d="{path}" fill="none" stroke="{colour}" stroke-width="{width}" '
            f'stroke-linecap="{cap}" stroke-linejoin="round"/>')


def line(path, colour, width):
    """A stroke that ends sharply: for straight lines on the pixel grid."""
    return stroke(path, colour, width, cap="butt")


def box(x, y, width, height, colour, radius=0):
    rounding = f' rx="{radius}"' if radius else ""
    return f'<rect x="{x}" y="{y}" width="{width}" height="{height}"{rounding} fill="{colour}"/>'


def disc(x, y, radius, colour):
    return f'<circle cx="{x}" cy="{y}" r="{radius}" fill="{colour}"/>'


def page(*glyph):
    """A white page with a folded corner; the glyph's room is x 12 to 36, y 15 to 42."""
    sheet = (f'<path d="M10.5 2.5h19l10 10v31a2 2 0 0 1-2 2h-27a2 2 0 0 1-2-2v-39a2 2 0 0 1 2-2z" '
             f'fill="{WHITE}" stroke="{EDGE}"/>')
    corner = (f'<path d="M29.5 2.5v8a2 2 0 0 0 2 2h8z" fill="{FOLD}" stroke="{EDGE}" '
              f'stroke-linejoin="round"/>')
    return [sheet, corner, *glyph]


def folder(*emblem):
    """A folder; the emblem's room is x 12 to 36, y 18 to 40."""
    back = fill("M3 11a3 3 0 0 1 3-3h11.5a3 3 0 0 1 2.1 .9L22.7 12H42a3 3 0 0 1 3 3v12H3z", FOLDER_BACK)
    front = box(3, 16, 42, 26, FOLDER_FRONT, 3)
    return [back, front, *emblem]


def ring_of_points(x, y, radius, count, turn=0.0):
    angles = (turn + 2 * math.pi * i / count for i in range(count))
    return [(x + radius * math.cos(angle), y + radius * math.sin(angle)) for angle in angles]


def polygon(points):
    return "M" + "L".join(f"{x:.2f} {y:.2f}" for x, y in points) + "z"


def gear(x, y, teeth, outer, inner):
    points = []
    step = 2 * math.pi / teeth
    for tooth in range(teeth):
        # Each tooth narrows from its foot to its tip; the widths are shares of a tooth and its gap.
        for share, radius in ((-0.29, inner), (-0.19, outer), (0.19, outer), (0.29, inner)):
            angle = (tooth + share) * step - math.pi / 2
            points.append((x + radius * math.cos(angle), y + radius * math.sin(angle)))
    return polygon(points)


def gem():
    """A cut stone seen from above: an octagon, its table and the edges between the two."""
    turn = math.pi / 8
    rim, table = ring_of_points(24, 29, 12, 8, turn), ring_of_points(24, 29, 6.5, 8, turn)
    edges = "".join(f"M{a[0]:.2f} {a[1]:.2f}L{b[0]:.2f} {b[1]:.2f}" for a, b in zip(rim, table))
    return [fill(polygon(rim), CRIMSON), stroke(edges, PINK, 1), fill(polygon(table), PINK)]


def table():
    cells = [box(x, y, width, height, PALE_GREEN if x == 13 else WHITE)
             for y, height in ((23, 5), (29, 5), (35, 5))
             for x, width in ((13, 6), (20, 7), (28, 7))]
    return [box(12, 16, 24, 25, GREEN, 1), *cells]


def zipper():
    tape = box(18, 3, 11, 24, PALE_ORANGE)
    teeth = [box(20 if row % 2 else 23, 4 + 3 * row, 4, 2, SLATE) for row in range(8)]
    pull = [box(18, 25, 11, 16, AMBER, 3), box(21, 33, 5, 5, WHITE, 1)]
    return [tape, *teeth, *pull]


def film():
    holes = [box(x, y, 3, 3, WHITE) for x in (13, 32) for y in (18, 23, 28, 33, 38)]
    return [box(11, 16, 26, 27, SLATE, 1), *holes, box(18, 19, 12, 21, PALE_BLUE), fill("M21 24v11l7-5.5z", SLATE)]


def palette():
    wood = ("M24 17c-7 0-12.5 4.8-12.5 11.5S17 40.5 23 40.5c2.3 0 3.2-1.5 2.5-3.3-.9-2.3.4-4.2 "
            "3-4.2h3.5c2.8 0 4.5-1.8 4.5-5C36.5 21.5 31 17 24 17z")
    return [fill(wood, TAN), disc(17, 29.5, 2.3, RED), disc(19, 23.2, 2.3, BLUE),
            disc(25.5, 21.3, 2.3, GREEN), disc(31.3, 25, 2.3, PURPLE)]


def curve_with_handles():
    anchors = [box(x, y, 6, 6, ORANGE) for x, y in ((21, 18), (11, 35), (31, 35))]
    return [stroke("M14 38C14 27 18 21 24 21S34 27 34 38", SLATE, 2), line("M13 21h22", ORANGE, 1.5), *anchors,
            disc(13, 21, 2.2, ORANGE), disc(35, 21, 2.2, ORANGE)]


def projects_tree():
    return [line("M16 22v17h7M16 30h7", SLATE, 2), box(12, 16, 12, 7, INDIGO, 1),
            box(22, 26, 14, 7, PALE_INDIGO, 1), box(22, 35, 14, 7, PALE_INDIGO, 1)]


def cloud_over_drive():
    """The account's root: a volume in the cloud, its drive below it."""
    return [fill("M14 27a8 8 0 0 1-.6-16A11 11 0 0 1 34.5 13.5 7 7 0 0 1 35 27z", FOLDER_FRONT),
            stroke("M24 14v9m-4-4 4 4.5 4-4.5", WHITE, 2.5),
            box(6, 31, 36, 12, "#6c7987", 3), disc(36, 37, 2.2, "#7fe0a2"), stroke("M11.5 37H25", FOLD, 2.5)]


ICONS = {
    "dropboxcontextmenu": cloud_over_drive(),
    "folder48": folder(),
    "folder_user48": folder(
        disc(30, 24.5, 3.6, PALE_BLUE), fill("M25 37v-2c0-3.5 2-5.5 5-5.5s7 2 7 6V37z", PALE_BLUE),
        disc(20.5, 24, 5.2, FOLDER_FRONT), fill("M10.5 38.5c0-7 4-10.2 10-10.2s10 3.2 10 10.2z", FOLDER_FRONT),
        disc(20.5, 24, 4, WHITE), fill("M12 37.5c0-5.5 3.2-8 8.5-8s8.5 2.5 8.5 8z", WHITE)),
    "folder_public48": folder(
        stroke("M14.5 29a9.5 9.5 0 1 0 19 0a9.5 9.5 0 1 0-19 0zM24 19.5c-6 6-6 13 0 19c6-6 6-13 0-19z"
               "M15 29h18", WHITE, 2)),
    "folder_camera48": folder(
        fill("M14 23h4.5l2-3h7l2 3H34a2 2 0 0 1 2 2v11a2 2 0 0 1-2 2H14a2 2 0 0 1-2-2V25a2 2 0 0 1 2-2z", WHITE),
        disc(24, 30, 5.5, FOLDER_BACK), disc(24, 30, 3, PALE_BLUE)),
    "folder_app48": folder(
        box(15, 20, 8, 8, WHITE, 2), box(25, 20, 8, 8, WHITE, 2), box(15, 30, 8, 8, WHITE, 2),
        box(25, 30, 8, 8, PALE_BLUE, 4)),
    "page_white48": page(),
    "page_white_acrobat48": page(
        line("M13 15h11M13 19h22", SILVER, 2),
        box(4, 24, 40, 15, RED, 2),
        stroke("M12.2 36V27.2h2.9a2.7 2.7 0 0 1 0 5.4h-2.9M21.2 35.3V27.2h1.9a4 4 0 0 1 0 8.1z"
               "M31.2 36V27.2h5M31.2 31.8h4.2", WHITE, 2.2)),
    "page_white_word48": page(
        line("M13 17h13", BLUE, 4), box(13, 22, 10, 10, PALE_BLUE),
        line("M25 23h10M25 27h10M25 31h10M13 36h22M13 40h15", BLUE, 2)),
    "page_white_excel48": page(*table()),
    "page_white_powerpoint48": page(
        box(13, 18, 22, 15, PALE_ORANGE), box(16, 26, 4, 6, ORANGE), box(22, 23, 4, 9, AMBER),
        box(28, 20, 4, 12, ORANGE), line("M11 17h26M11 33h26", SLATE, 2),
        stroke("M24 34v2l-4.5 5M24 36l4.5 5", SLATE, 2)),
    "page_white_text48": page(line("M13 17h22M13 22h22M13 27h22M13 32h22M13 37h13", SLATE, 2)),
    "page_white_code48": page(
        stroke("M17.5 22.5l-5 6.5 5 6.5M30.5 22.5l5 6.5-5 6.5", BLUE, 3), stroke("M26.5 20.5l-5 17", SLATE, 2.5)),
    "page_white_c48": page(stroke("M30.8 23A8.7 8.7 0 1 0 30.8 35", BLUE, 4.5)),
    "page_white_h48": page(stroke("M17.5 18v20.5M17.5 31c0-3.8 2.8-6 6.5-6s6.5 2.2 6.5 6v7.5", PURPLE, 4.5)),
    "page_white_csharp48": page(
        stroke("M21.7 25.1A5.6 5.6 0 1 0 21.7 32.9", GREEN, 3),
        line("M29 23v12M34 23v12M26 27h11M26 31h11", GREEN, 2)),
    "page_white_php48": page(
        stroke("M19.5 22l-6 7 6 7", INDIGO, 3.2),
        stroke("M25.5 24.5a4.7 4.7 0 1 1 7 4.1c-1.8 1-2.3 1.9-2.3 3.8", INDIGO, 3.2), disc(30.2, 37.5, 2, INDIGO)),
    "page_white_ruby48": page(*gem()),
    "page_white_actionscript48": page(
        stroke("M18.5 19.5c-3 0-3.5 1.3-3.5 3.5v2.5c0 2-.8 3-2.5 3.5 1.7.5 2.5 1.5 2.5 3.5V35c0 2.2.5 3.5 3.5 "
               "3.5M29.5 19.5c3 0 3.5 1.3 3.5 3.5v2.5c0 2 .8 3 2.5 3.5-1.7.5-2.5 1.5-2.5 3.5V35c0 2.2-.5 "
               "3.5-3.5 3.5", TEAL, 2.5),
        fill("M21 24v10l7.5-5z", ORANGE)),
    "page_white_cup48": page(
        fill("M12 20h19v10a6 6 0 0 1-6 6h-7a6 6 0 0 1-6-6z", BROWN),
        stroke("M31 23h1.5a3.5 3.5 0 0 1 0 7H31", BROWN, 2.5), stroke("M12.5 40h18", TAN, 2)),
    "page_white_visualstudio48": page(*projects_tree()),
    "page_white_picture48": page(
        box(11, 17, 26, 23, SLATE, 1), box(13, 19, 22, 19, "#c5e4fa"), disc(19, 24, 2.7, AMBER),
        fill("M13 38v-3l6-6 4 4 6-7 6 7v5z", GREEN)),
    "page_white_paint48": page(*palette()),
    "page_white_vector48": page(*curve_with_handles()),
    "page_white_flash48": page(fill("M27.5 15 14.5 31H22l-2.5 11.5L33.5 26H26z", AMBER)),
    "page_white_film48": page(*film()),
    "page_white_sound48": page(
        fill("M19 20l15-3.5v5L19 25z", PURPLE), line("M20 20v18M33 17.5v17", PURPLE, 2.5),
        '<ellipse cx="17" cy="38" rx="4.3" ry="3.4" fill="%s"/>' % PURPLE,
        '<ellipse cx="30" cy="34.5" rx="4.3" ry="3.4" fill="%s"/>' % PURPLE),
    "page_white_compressed48": page(*zipper()),
    "page_white_dvd48": page(
        disc(24, 29, 12, SILVER), fill("M24 29 30 18.6A12 12 0 0 1 36 29z", PALE_BLUE),
        fill("M24 29 18 39.4A12 12 0 0 1 12 29z", PALE_BLUE), disc(24, 29, 5, SLATE), disc(24, 29, 2.5, WHITE)),
    "page_white_gear48": page(fill(gear(24, 29, 8, 12.5, 9), SLATE), disc(24, 29, 4, WHITE)),
    "page_white_tux48": page(
        fill("M16 18h16l4 7H12z", "#e9c48f"), box(12, 25, 24, 16, TAN), fill("M22 18h4l1 7v6h-6v-6z", BROWN)),
}


def svg(shapes):
    body = "\n".join("  " + shape for shape in shapes)
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{SIZE}" height="{SIZE}" '
            f'viewBox="0 0 {SIZE} {SIZE}">\n{body}\n</svg>\n')


def sheet_half(top, background, ink, columns, cell_width, cell_height, half_height):
    parts = [box(0, top, columns * cell_width, half_height, background)]
    for index, name in enumerate(ICONS):
        left = index % columns * cell_width
        cell_top = top + 12 + index // columns * cell_height
        png = base64.b64encode((HERE / f"{name}.png").read_bytes()).decode()
        parts.append(f'<image x="{left + (cell_width - SIZE) // 2}" y="{cell_top}" width="{SIZE}" height="{SIZE}" '
                     f'href="data:image/png;base64,{png}"/>')
        parts.append(f'<text x="{left + cell_width // 2}" y="{cell_top + SIZE + 15}" font-size="10" fill="{ink}" '
                     f'font-family="sans-serif" text-anchor="middle">{name}</text>')
    return parts


def sheet():
    """All pictures on a light and on a dark ground. It shows the PNGs, because those are what users see."""
    columns, cell_width, cell_height = 8, 144, 82
    half_height = -(-len(ICONS) // columns) * cell_height + 16
    parts = [part for top, background, ink in ((0, WHITE, "#333333"), (half_height, "#1f2227", "#d0d4da"))
             for part in sheet_half(top, background, ink, columns, cell_width, cell_height, half_height)]
    width, height = columns * cell_width, 2 * half_height
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}">\n' + "\n".join(parts)
            + "\n</svg>\n")


def main():
    parser = argparse.ArgumentParser(description="Draw the plug-in's pictures as SVG.")
    parser.add_argument("--sheet", type=pathlib.Path, help="also write a sheet of all rendered pictures here")
    arguments = parser.parse_args()
    for name, shapes in ICONS.items():
        (HERE / f"{name}.svg").write_text(svg(shapes), encoding="utf-8")
    if arguments.sheet:
        arguments.sheet.write_text(sheet(), encoding="utf-8")


if __name__ == "__main__":
    main()
