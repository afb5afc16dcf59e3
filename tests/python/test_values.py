# Every value kind, there and back through the memory, and the kinds refused.
import pytest

# Values that come back as they went, then those that come back converted.
SAME = [None, True, False, -2**31, 2**31 - 1, 0.5, "", "Grüße \u2603", b"\x00\xff\x10", [],
        [1, [2.5, [None, b"x"]], "s", True]]
ROUND_TRIPS = [(v, v) for v in SAME] + [
    (0.1, pytest.approx(0.1, rel=1e-7)),  # a 32-bit float
    (bytearray(b"ab"), b"ab"),
    ((1, "a"), [1, "a"]),
]


@pytest.mark.parametrize("sent, received", ROUND_TRIPS)
def test_value_round_trip(memory, sent, received):
    memory.insertData("Py/Value", sent)
    got = memory.getData("Py/Value")
    assert got == received
    assert type(got) is type(received) or isinstance(received, type(pytest.approx(0)))


self_nested = []
self_nested.append(self_nested)


@pytest.mark.parametrize("value, error, text", [
    (2**31, OverflowError, "int 2147483648 does not fit the memory's signed 32-bit int"),
    ([1, -2**40], OverflowError, "does not fit"),
    (1e300, OverflowError, "out of the range of the memory's 32-bit floats"),
    ({"a": 1}, TypeError, "cannot send a dict as a value"),
    ([object()], TypeError, "cannot send a object as a value"),
    (3j, TypeError, "cannot send a complex as a value"),
    (self_nested, ValueError, "nested deeper than 100"),
])
def test_values_refused(memory, value, error, text):
    with pytest.raises(error, match=text):
        memory.insertData("Py/Refused", value)
