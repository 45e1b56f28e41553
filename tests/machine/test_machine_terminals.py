"""A message is written to the terminals that its recipient has open, and to no others."""

from furnished import banner


def test_a_pseudo_terminal_of_the_recipient_shows_the_banner(machine):
    terminal = machine.open_terminal("pat")
    machine.send("--to", "pat", "--title", "News", "two\nlines")
    assert terminal.shown() == banner("two\nlines", machine.date(), title="News")
    assert machine.terminals_written() == {"pat": 1}


def test_the_terminal_of_a_session_shows_the_banner_once(machine):
    terminal = machine.log_in("pat")
    machine.send("--to", "pat", "hello")
    assert terminal.shown() == banner("hello", machine.date())
    assert machine.terminals_written() == {"pat": 1}


def test_the_console_of_a_session_shows_the_banner(machine):
    terminal = machine.log_in_at_console("pat")
    machine.send("--to", "pat", "hello")
    assert terminal.shown() == banner("hello", machine.date())
    assert machine.terminals_written() == {"pat": 1}


def test_every_terminal_of_the_recipient_shows_the_banner(machine):
    terminals = [machine.open_terminal("pat"), machine.log_in("pat"),
                 machine.log_in_at_console("pat")]
    machine.send("--to", "pat", "hello")
    expected = banner("hello", machine.date())
    assert [terminal.shown() for terminal in terminals] == [expected] * 3
    assert machine.terminals_written() == {"pat": 3}
    assert "delivered, written to 3 terminals\n" in machine.tbx("status", "1").stdout


def test_terminals_of_others_show_nothing(machine):
    others = [machine.open_terminal("sam"), machine.open_terminal("root"), machine.log_in("alex"),
              machine.log_in_at_console("sam")]
    machine.send("--to", "pat", "hello")
    assert [terminal.shown() for terminal in others] == [b""] * 4
    assert machine.terminals_written() == {"pat": 0}


def test_each_recipient_s_terminal_shows_the_banner(machine):
    terminals = [machine.open_terminal("pat"), machine.log_in("sam")]
    machine.send("--to", "pat,sam", "hello", recipients=2)
    assert [terminal.shown() for terminal in terminals] == [banner("hello", machine.date())] * 2
    assert machine.terminals_written() == {"pat": 1, "sam": 1}


def test_a_terminal_that_has_gone_to_someone_else_shows_nothing(machine):
    terminal = machine.log_in("pat").give_to("sam")
    console = machine.log_in_at_console("pat").give_to("root")
    machine.send("--to", "pat", "hello")
    assert (terminal.shown(), console.shown()) == (b"", b"")
    assert machine.terminals_written() == {"pat": 0}


def test_a_terminal_closed_to_other_users_messages_shows_the_banner(machine):
    terminal = machine.log_in("pat")
    machine.path(terminal.path).chmod(0o600)
    machine.send("--to", "pat", "hello")
    assert terminal.shown() == banner("hello", machine.date())


def test_the_banner_keeps_its_lines_under_a_full_screen_program(machine):
    terminal = machine.log_in("pat")
    terminal.make_raw()
    machine.send("--to", "pat", "hello")
    assert terminal.shown() == banner("hello", machine.date()).replace(b"\r\r", b"\r")


def test_the_administrator_s_own_terminal_shows_a_message_to_all(machine):
    terminal = machine.log_in("admin")
    machine.send("--to", "all", "hello", recipients=5, user="admin")
    assert terminal.shown() == banner("hello", machine.date())


def test_what_a_message_has_of_escape_sequences_reaches_no_terminal(machine):
    terminal = machine.open_terminal("pat")
    machine.send("--to", "pat", "--title", "\x1b]0;owned\x07News", "a\x1b[2Jb\rc\x07\u0085d")
    assert terminal.shown() == banner("abcd", machine.date(), title="News")


def test_a_stopped_terminal_delays_a_send_but_does_not_stop_it(machine):
    stopped = machine.log_in("pat")
    stopped.stop()
    other = machine.open_terminal("pat")
    next_one = machine.open_terminal("sam")
    machine.send("--to", "pat,sam", "hello", recipients=2, timeout=20)
    assert machine.terminals_written() == {"pat": 1, "sam": 1}
    assert other.shown() == next_one.shown() == banner("hello", machine.date())


def test_a_terminal_that_was_stopped_shows_the_next_message(machine):
    terminal = machine.log_in("pat")
    terminal.stop()
    machine.send("--to", "pat", "lost", timeout=20)
    terminal.resume()
    machine.send("--to", "pat", "hello", message_id=2)
    assert terminal.shown().endswith(banner("hello", machine.date(2)))
    assert machine.terminals_written(2) == {"pat": 1}
