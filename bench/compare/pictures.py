"""Bar charts by gnuplot: a panel per case, a bar per client, ours in a strong color."""

import subprocess

OURS, OTHERS, INK = "#c8553d", "#9fb1bd", "#333333"
ROW, HEAD, FOOT, WIDTH = 26, 48, 16, 860  # pixels


def quoted(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def panel(title, unit, bars, top, bottom, height):
    """`bars`: name, value, whether it is ours; the first is at the top."""
    longest = max(value for _, value, _ in bars)
    lines = [f"set tmargin at screen {top:.4f}", f"set bmargin at screen {bottom:.4f}",
             f"set xrange [0:{longest * 1.18}]", f"set yrange [-0.6:{len(bars) - 0.4}]",
             "unset label",
             f"set label {quoted(title)} at screen 0.02,{top + 0.2 * (HEAD / height):.4f} left "
             f"font ',15' textcolor rgb '{INK}'"]
    tics = []
    for row, (name, value, ours) in enumerate(reversed(bars)):
        tics.append(f"{quoted(name)} {row}")
        lines.append(f"set object {row + 1} rectangle from 0,{row - 0.36} to {value},{row + 0.36} "
                     f"fillcolor rgb '{OURS if ours else OTHERS}' fillstyle solid noborder")
        lines.append(f"set label {quoted(f'{value:.3g} {unit}')} at {value},{row} left "
                     f"offset 0.6,0 textcolor rgb '{INK}'")
    lines.append("set ytics (" + ", ".join(tics) + ") scale 0")
    lines.append("plot -1 notitle")
    lines += [f"unset object {row + 1}" for row in range(len(bars))]
    return lines


def bars(file, unit, panels):
    """`panels`: title and bars. Gnuplot's screen coordinates start at the bottom."""
    heights = [HEAD + ROW * len(rows) for _, rows in panels]
    height = sum(heights) + FOOT
    script = [f"set terminal svg size {WIDTH},{height} font 'Helvetica,13' background '#ffffff'",
              f"set output {quoted(str(file))}", "set multiplot", "set border 0", "unset xtics",
              "unset key", "set lmargin at screen 0.27", "set rmargin at screen 0.97"]
    at = 0
    for (title, rows), one in zip(panels, heights):
        top = 1 - (at + HEAD - 12) / height
        bottom = 1 - (at + one - 4) / height
        script += panel(title, unit, rows, top, bottom, height)
        at += one
    script.append("unset multiplot")
    subprocess.run(["gnuplot"], input="\n".join(script), text=True, check=True)
