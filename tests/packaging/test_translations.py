"""The recipients' programs speak the language of their user, and programs read the same in all."""

import os
import re
import subprocess

import pytest
from conftest import REPOSITORY, install, run
from prerequisites import need_programs

CATALOGUES = sorted((REPOSITORY / "po").glob("*.po"))
SPANISH = {"LC_ALL": "C.UTF-8", "LANGUAGE": "es"}
HEADING = "ID    DATE         TEXT                                      STATE"
SPANISH_HEADING = "ID    FECHA        TEXTO                                     ESTADO"
every_catalogue = pytest.mark.parametrize("catalogue", CATALOGUES, ids=lambda path: path.stem)


@pytest.fixture(scope="module")
def place(tree, tmp_path_factory):
    """Both sides, installed in a folder of the tests' own."""
    destination = tmp_path_factory.mktemp("translated")
    install(tree, destination, "tellbox", "tellbox-user")
    return destination


@pytest.fixture
def environment(place, tmp_path):
    """Test mode, with the catalogues that were installed."""
    return {"PATH": os.environ["PATH"], "TZ": "UTC", "TBX_TEST": "1", "TBX_VAR": str(tmp_path),
            "TBX_LIB": str(place / "usr/local/lib/tellbox")}


@pytest.fixture
def tellbox(place, environment):
    """Runs the users' command; returns what it prints, diagnostics first."""
    def call(*words, **language):
        result = subprocess.run([place / "usr/local/bin/tellbox", *words], text=True, check=False,
                                env={**environment, **language}, capture_output=True,
                                stdin=subprocess.DEVNULL)
        return result.stderr + result.stdout
    return call


@pytest.fixture
def message(place, environment):
    """A message for whoever runs the tests."""
    user = run("id", "-un").strip()
    run(place / "usr/local/bin/tbx", "send", "--to", user, "hello", env=environment)


# ---- The catalogues -------------------------------------------------------------------------


@pytest.fixture(scope="module")
def template(tmp_path_factory):
    """What the sources have to say."""
    need_programs("xgettext", "msgfmt", "msgcmp", "msgattrib")
    path = tmp_path_factory.mktemp("template") / "tellbox-user.pot"
    path.write_text(run(REPOSITORY / "tools" / "po", "template"), encoding="utf-8")
    return path


@every_catalogue
def test_every_text_is_translated(catalogue, template):
    run("msgcmp", catalogue, template)  # fails and names what is missing; see tools/po


@every_catalogue
def test_every_translation_has_the_form_of_its_text(catalogue, template):
    checked = subprocess.run(["msgfmt", "--check", "--output-file=/dev/null", catalogue], text=True,
                             capture_output=True, check=False)
    assert (checked.returncode, checked.stderr) == (0, "")
    for kind in ("--only-fuzzy", "--untranslated"):
        assert run("msgattrib", kind, catalogue) == ""


@every_catalogue
def test_terms_and_commands_stand_in_a_translation_as_in_the_text(catalogue):
    text = catalogue.read_text(encoding="utf-8")
    pairs = re.findall(r'^msgid "(.*¦.*)"\nmsgstr "(.*)"$', text, re.MULTILINE)
    assert len(pairs) > 15
    for original, translation in pairs:
        term, said = original.split("¦")[0], translation.split("¦")[0]
        assert translation.count("¦") == 1, original
        for word in re.findall(r"^(?:list|show|read|later|hook|version)\b|--\w+|[A-Z]+_[A-Z]+|~?/[\w/.]+",
                               term):
            assert word.removesuffix("USER/") in said, original


# ---- What a user reads ----------------------------------------------------------------------


def test_a_spanish_user_reads_spanish(tellbox, message):
    listed = tellbox("list", **SPANISH).splitlines()
    assert listed[0] == SPANISH_HEADING and listed[1].endswith("hello" + 37 * " " + "pendiente")
    assert tellbox("read", "7", **SPANISH) == "tellbox: no existe el mensaje: 7\n"
    assert tellbox("later", "1", **SPANISH) == "Mensaje 1 aplazado: volverá dentro de 30 minutos.\n"
    assert tellbox("read", "1", **SPANISH) == "Mensaje 1 confirmado.\n"
    assert tellbox("help", **SPANISH).startswith("tellbox — lee y confirma los mensajes")


def test_one_minute_is_one_minute(tellbox, message, environment, tmp_path):
    configuration = tmp_path / "tellbox.conf"
    configuration.write_text("TBX_REMIND_MINUTES = 1\n")
    environment["TBX_CONF"] = str(configuration)
    assert tellbox("later", "1", **SPANISH) == "Mensaje 1 aplazado: volverá dentro de 1 minuto.\n"
    assert tellbox("later", "1") == "Message 1 postponed: it comes back in 1 minute.\n"


@pytest.mark.parametrize("language", [
    {}, {"LC_ALL": "C"}, {"LC_ALL": "C.UTF-8"}, {"LC_ALL": "C.UTF-8", "LANGUAGE": "xx"},
    {"LC_ALL": "xx_XX.UTF-8", "LANGUAGE": "es"}, {"LANG": "C", "LANGUAGE": "es"}], ids=str)
def test_without_a_catalogue_everything_is_english(tellbox, message, language):
    assert tellbox("list", **language).splitlines()[0] == HEADING
    assert tellbox("read", "1", **language) == "Message 1 confirmed.\n"


@pytest.mark.parametrize("variable", ["LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"])
def test_a_catalogue_elsewhere_is_not_read(tellbox, message, place, variable):
    catalogue = place / "usr/local/share/locale/es/LC_MESSAGES/tellbox-user.mo"
    folder = place / "elsewhere"
    (folder / "LC_MESSAGES").mkdir(parents=True, exist_ok=True)
    (folder / "LC_MESSAGES" / catalogue.name).write_bytes(catalogue.read_bytes())
    path = f"../../../../elsewhere{'' if variable == 'LANGUAGE' else '.UTF-8'}"
    language = {"LC_ALL": "C.UTF-8", "LANGUAGE": "es", variable: path}
    assert tellbox("list", **language).splitlines()[0] == HEADING


def test_the_administrator_s_command_speaks_english_only(place, environment, message):
    env = {**environment, **SPANISH}
    assert run(place / "usr/local/bin/tbx", "list", env=env).startswith("ID    DATE ")


def test_the_manual_page_is_there_in_spanish(place):
    page = place / "usr/local/share/man/es/man1/tellbox.1"
    lint = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", page], capture_output=True,
                          text=True, check=False)
    assert lint.stdout == ""
    text = run("mandoc", "-T", "utf8", page)
    for heading in ("NOMBRE", "SINOPSIS", "DESCRIPCIÓN", "ÓRDENES", "VÉASE TAMBIÉN"):
        assert re.search(rf"^.*{heading}", re.sub(".\x08", "", text), re.MULTILINE), heading


# ---- What programs read ---------------------------------------------------------------------


@pytest.mark.parametrize("words", [("hook", "bash"), ("hook", "zsh"), ("hook", "fish"), ("version",)],
                         ids=" ".join)
def test_what_programs_read_is_the_same_in_every_language(tellbox, message, words):
    assert tellbox(*words, **SPANISH) == tellbox(*words)


def test_the_completions_find_the_messages_in_every_language(tellbox, message):
    for language in ({}, SPANISH):
        assert re.findall(r"^(\d+) ", tellbox("list", **language), re.MULTILINE) == ["1"]
