# Calls through a service: errors, overloads, the catalogue, connecting.
import pytest
import rxmemory


@pytest.mark.parametrize("call, error, text", [
    # The error's text is made of its module, method and message attributes.
    (lambda m: m.getData("Py/Nothing"), rxmemory.RXError, r"^RXMemory\.getData: Data not found Py/Nothing$"),
    (lambda m: m.insertData("k"), TypeError, r"no method insertData accepting \(string\)"),
    (lambda m: m.getData(5), TypeError, r"getData accepting \(int\)"),
    (lambda m: m.noSuchMethod(), AttributeError, "RXMemory has no method or signal 'noSuchMethod'"),
])
def test_calls_that_fail(memory, call, error, text):
    with pytest.raises(error, match=text):
        call(memory)


@pytest.mark.parametrize("value", [7, 7.5, "7", [7], True])
def test_overload_follows_argument_kind(memory, value):
    # An int must reach insertData(string, int), not the float overload.
    memory.insertData("Py/Kind", value)
    for got in (memory.getData("Py/Kind"), memory.getData("Py/Kind", 0)):  # both getData overloads
        assert got == value and type(got) is type(value)


def test_catalogue_lists_overloads_with_texts(memory):
    assert len([m for m in memory.methods() if m.name == "insertData"]) >= 2
    get = next(m for m in memory.methods() if m.name == "getData")
    assert get.parameters[0] == rxmemory.Parameter("key", "string", get.parameters[0].description)
    assert get.description and get.signature.startswith("RXValue getData(string key")
    assert "getData" in dir(memory)


def test_unknown_service_and_unreachable_broker(session, tmp_path):
    with pytest.raises(LookupError, match="Service not found: NoSuchModule"):
        session.service("NoSuchModule")
    with pytest.raises(rxmemory.RemoteError, match="cannot connect to"):
        rxmemory.connect(f"unix://{tmp_path}/none.sock", timeout=2)
