"""The user manual is true, whole, and needs nothing else."""

import collections
import html.parser
import re
import subprocess

import manual
import pytest
import user_pictures
from prerequisites import need_programs, need_root

VOID = {"meta", "link", "br", "hr", "img", "input", "col", "wbr"}


class Page(html.parser.HTMLParser):
    """What the tests ask of an HTML file."""

    def __init__(self, text):
        super().__init__()
        self.ids, self.links, self.tags, self.problems = [], [], collections.Counter(), []
        self.headings, self.unlabelled = [], []
        self._open = []
        self.feed(text)
        self.close()
        self.problems += [f"never closed: {tag}" for tag in self._open]

    def handle_starttag(self, tag, attributes):
        values = dict(attributes)
        self.tags[tag] += 1
        if "id" in values:
            self.ids.append(values["id"])
        self.links += [values[name] for name in ("href", "src", "data") if name in values]
        self.links += [f"#{name}" for name in values.get("aria-labelledby", "").split()]
        if re.fullmatch("h[1-6]", tag):
            self.headings.append(int(tag[1]))
        if values.get("role") in ("img", "region") and not values.get("aria-label"):
            self.unlabelled.append(self.getpos())
        if tag == "img" and not values.get("alt"):
            self.unlabelled.append(self.getpos())
        if any(name.startswith("on") for name in values):
            self.problems.append(f"script in {tag}")
        if tag not in VOID:
            self._open.append(tag)

    def handle_endtag(self, tag):
        if not self._open or self._open.pop() != tag:
            self.problems.append(f"</{tag}> at {self.getpos()} closes something else")


@pytest.fixture(scope="module")
def text(tree):
    return (tree / "packaging" / "User Manual.html").read_text(encoding="utf-8")


@pytest.fixture(scope="module")
def page(text):
    return Page(text)


# ---- The page ---------------------------------------------------------------------------------


def test_every_element_is_closed_where_it_should_be(page):
    assert page.problems == []


def test_every_link_leads_to_a_place_on_the_page(page):
    elsewhere = [link for link in page.links if link.lstrip("#") not in page.ids]
    assert [link for link in elsewhere if not link.startswith("data:image/png;base64,")] == []
    assert len(page.links) > 10


def test_no_two_places_have_one_name(page):
    assert [name for name, count in collections.Counter(page.ids).items() if count > 1] == []


def test_every_chapter_is_in_the_contents(text, page):
    chapters = re.findall(r'<h2 id="([^"]+)"', text)
    assert {f"#{name}" for name in chapters if name != "contents"} <= set(page.links)


def test_it_needs_no_script_and_no_other_file(text, page):
    assert page.tags["script"] + page.tags["link"] + page.tags["iframe"] + page.tags["object"] == 0
    assert not re.search(r"@import|url\(|javascript:", text)


def test_headings_leave_no_level_out(page):
    assert page.headings[0] == 1 and page.headings.count(1) == 1
    assert all(below <= above + 1 for above, below in zip(page.headings, page.headings[1:]))


def test_language_title_and_width_are_told(text):
    assert '<html lang="en">' in text
    assert "<title>Tellbox User Manual</title>" in text
    assert 'name="viewport" content="width=device-width, initial-scale=1"' in text


def test_pictures_and_regions_have_labels(page):
    assert page.unlabelled == []


def test_light_dark_and_paper_are_provided_for(text):
    assert "@media (prefers-color-scheme: dark)" in text
    assert "@media print" in text


def luminance(colour):
    channels = [int(colour[at:at + 2], 16) / 255 for at in (1, 3, 5)]
    linear = [c / 12.92 if c <= 0.04045 else ((c + 0.055) / 1.055) ** 2.4 for c in channels]
    return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]


def contrast(one, other):
    lighter, darker = sorted((luminance(one), luminance(other)), reverse=True)
    return (lighter + 0.05) / (darker + 0.05)


@pytest.mark.parametrize("scheme", [0, 1], ids=["light", "dark"])
def test_every_text_stands_out_from_its_ground(text, scheme):
    colours = {}
    for block in re.findall(r":root \{(.*?)\}", text, re.DOTALL)[:scheme + 1]:
        colours.update(re.findall(r"--([\w-]+): (#\w{6});", block))
    pairs = [(name, ground) for name in ("text", "soft", "link", "accent")
             for ground in ("ground", "panel")]
    pairs += [(f"term-{name}", "term-ground")
              for name in ("text", "dim", "grey", "green", "yellow", "red", "cyan")]
    pairs.append(("term-select-text", "term-select"))
    too_weak = [pair for pair in pairs if contrast(colours[pair[0]], colours[pair[1]]) < 4.5]
    assert too_weak == []


def test_nothing_is_left_to_fill_in(text):
    assert not re.search(r"@\w+@|<!-- screen", text)


# ---- What it says -----------------------------------------------------------------------------


def test_every_command_and_option_of_the_guide_is_in_it(text, binary):
    guide = subprocess.run([binary, "help"], stdin=subprocess.DEVNULL, capture_output=True,
                           text=True, check=True, env={"TBX_TEST": "1"}).stdout
    part = guide[guide.index("\nCOMMANDS"):guide.index("\nEXAMPLES")]
    terms = re.findall(r"^ {7}(?! )(.*)$", part, re.MULTILINE)
    words = {word.rstrip(",") for term in terms for word in re.findall(r"--\w+|^\w+", term)}
    assert {"send", "list", "purge", "--to", "--file"} <= words
    assert [word for word in words if word not in text] == []


@pytest.fixture(scope="module")
def chapters():
    return {path.name: path.read_text(encoding="utf-8") for path in manual.CHAPTERS}


@pytest.fixture(scope="module")
def fresh(chapters, binary):
    """The chapters, with what the program prints now."""
    stage = manual.Stage(binary)
    try:
        return manual.rewritten(chapters, stage)
    finally:
        stage.close()


def test_every_example_prints_what_the_manual_says(chapters, fresh):
    for name, text in chapters.items():
        expected = manual.comparable(text).splitlines()
        assert manual.comparable(fresh[name]).splitlines() == expected, (
            f"{name}: look at it, and run docs/manual/refresh if the program is right")


def test_refreshing_leaves_the_times_of_lines_that_have_not_changed():
    old = "sent 21/11 03:02\nread 21/11 03:04 by pat\nin between\nthe end at 03:05:01\n"
    fresh = "sent 22/11 10:00\nread 22/11 10:02 by sam\nthe end at 10:03:07\nnew 22/11 10:04\n"
    assert manual.merged(old, fresh) == (
        "sent 21/11 03:02\nread 22/11 10:02 by sam\nthe end at 03:05:01\nnew 22/11 10:04\n")


def test_refreshing_what_is_right_changes_nothing(chapters, fresh):
    assert {name: manual.merged(text, fresh[name]) for name, text in chapters.items()} == chapters


def kept_picture(name):
    return (manual.MANUAL / f"screen-{name}.html").read_text(encoding="utf-8")


def test_every_picture_of_the_administrator_s_command_shows_what_it_shows(binary):
    for name, shot in manual.pictures(binary).items():
        assert kept_picture(name).splitlines() == shot.splitlines(), f"{name}: docs/manual/refresh"


def test_every_picture_of_a_prompt_shows_what_a_user_sees(binary):
    need_root("ordinary accounts")
    for name, shot in user_pictures.on_terminals(binary).items():
        assert kept_picture(name).splitlines() == shot.splitlines(), f"{name}: docs/manual/refresh"


def test_every_image_shows_what_a_user_sees_on_the_desktop(binary, tmp_path):
    need_root("ordinary accounts")
    need_programs("Xvfb", "openbox", "xdotool", "xprop", "xterm", "xwininfo", "dbus-daemon")
    for name, image in user_pictures.on_displays(binary).items():
        image.save(tmp_path / f"{name}.png")
        assert user_pictures.is_alike(user_pictures.PICTURES / f"{name}.png", image), (
            f"{tmp_path}/{name}.png: look at it, and run docs/manual/refresh if it is right")


@pytest.mark.parametrize("box, alike", [((30, 118, 31, 135), True), ((223, 274, 288, 307), False)],
                         ids=["cursor", "button"])
def test_a_missing_button_is_noticed_in_an_image_and_a_cursor_is_not(box, alike):
    from PIL import ImageDraw
    image = user_pictures.kept_image("window")
    ImageDraw.Draw(image).rectangle(box, fill=(246, 245, 244))
    assert user_pictures.is_alike(user_pictures.PICTURES / "window.png", image) == alike


def test_the_page_holds_the_images_as_they_are_kept():
    for name in user_pictures.LABELS:
        assert kept_picture(name) == user_pictures.in_page(name)
