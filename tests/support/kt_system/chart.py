"""Series of samples as one SVG picture, a panel each. With the standard library alone."""

from html import escape

from .trend import Trend

WIDTH, HEIGHT, LEFT, TOP = 860, 130, 90, 26


def _label(x: float, y: float, text: str, anchor: str = "start") -> str:
    return f'<text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}">{escape(text)}</text>'


def _line(points: list[tuple[float, float]], color: str, width: float) -> str:
    text = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
    style = f'fill="none" stroke="{color}" stroke-width="{width}"'
    return f'<polyline points="{text}" {style}/>'


def _panel(top: float, title: str, samples, found: Trend | None) -> list[str]:
    begin, end = samples[0][0], max(samples[-1][0], samples[0][0] + 1e-9)
    low, high = min(y for _, y in samples), max(y for _, y in samples)
    span = (high - low) or 1.0
    plot = HEIGHT - TOP - 14

    def place(x: float, y: float) -> tuple[float, float]:
        right = LEFT + (x - begin) / (end - begin) * (WIDTH - LEFT - 10)
        return right, top + TOP + plot * (1 - (y - low) / span)

    drawn = [
        _label(LEFT, top + 16, title),
        _label(LEFT - 6, top + TOP + 8, f"{high:g}", "end"),
        _label(LEFT - 6, top + TOP + plot, f"{low:g}", "end"),
        _label(WIDTH - 10, top + HEIGHT - 2, f"{end:.0f} s", "end"),
        f'<rect x="{LEFT}" y="{top + TOP:.0f}" width="{WIDTH - LEFT - 10}" height="{plot}"'
        ' fill="none" stroke="#bbb"/>',
        _line([place(*sample) for sample in samples], "#25c", 1.2),
    ]
    if found is not None:
        middle = (begin + end) / 2
        fit = [place(middle, found.start), place(end, found.start + found.drift)]
        drawn.append(_line(fit, "#083" if found.flat else "#c20", 2.5))
    return drawn


def picture(title: str, panels) -> str:
    """panels: (title, [(time, value)], trend or None); those without samples are left out."""
    drawn, top = [_label(LEFT, 20, title)], 30.0
    for name, samples, found in panels:
        if samples:
            drawn += _panel(top, name, samples, found)
            top += HEIGHT
    body = "\n".join(drawn)
    return (
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{top:.0f}"'
        f' font-family="sans-serif" font-size="12">\n<rect width="100%" height="100%"'
        f' fill="white"/>\n{body}\n</svg>\n'
    )
