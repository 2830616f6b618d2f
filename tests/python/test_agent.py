"""Both clients, with a real agent."""

import asyncio
import inspect

import pytest

import koruregfile
from koruregfile import (Agent, AgentGone, AgentRefusal, AsyncAgent, ChipEvent, Field, FieldEvent,
                         RegisterChange, Value)

# Each operation, and something to be said of what it gives.
OPERATIONS = [
    (lambda a: a.chips(), lambda r: [each.name for each in r] == ["chip0"]),
    (lambda a: a.chip("chip0"), lambda r: r.state == "up" and r.transport == "memory window0"),
    (lambda a: a.chip_registers("chip0"), lambda r: (r[1].name, r[1].width) == ("LIMIT", 16)),
    (lambda a: a.rewrite("chip0"), lambda r: r == 2),
    (lambda a: a.rewrite("chip0", ("LIMIT",)), lambda r: r == 1),
    (lambda a: a.fields("chip0"), lambda r: len(r) == 5),
    (lambda a: a.fields("chip0", "VOLTAGE"), lambda r: r == [Field(
        "VOLTAGE", "VALUE", "status", hw_register="VOLTAGE", hw_bits=(15, 0), unit="mV")]),
    (lambda a: a.write_field("chip0", "monitor", "rate", "fast"), lambda r: int(r) == 9),
    (lambda a: a.read_field("chip0", "monitor", "rate"),
     lambda r: r == Value(9, text="fast", name="fast")),
    (lambda a: a.read_field("chip0", "monitor", "rate", live=True), lambda r: r.live),
    (lambda a: a.read_field("chip0", "VOLTAGE", "VALUE"),
     lambda r: r == Value(0, text="0 mV", number=0, live=True)),
    (lambda a: a.reset_field("chip0", "monitor", "rate"), lambda r: r.value == 1),
    (lambda a: a.write_fields("chip0", {("monitor", "rate"): 2}, dry_run=True),
     lambda r: r.registers == [RegisterChange("CONTROL", 0x11, 0x21)] and r.fields[0].was == 1),
    (lambda a: a.write_fields("chip0", {("monitor", "limit"): "10.5 mA"}, order="given"),
     lambda r: (r.fields[0].value, r.fields[0].number) == (21, 10.5)),
    (lambda a: a.restore_defaults("chip0"), lambda r: [each.was for each in r.fields] == [21]),
    (lambda a: a.registers("chip0"), lambda r: [each.kind for each in r] == ["logical", "status"]),
    (lambda a: a.write_register("chip0", "monitor", 0x90), lambda r: r == 0x90),
    (lambda a: a.read_register("chip0", "monitor"),
     lambda r: r.value == 0x90 and r.fields["rate"] == 9 and r.texts["rate"] == "fast"),
    (lambda a: a.hw_registers("chip0"), lambda r: [each.writeable for each in r] == [
        True, True, True, False]),
    (lambda a: a.write_hw("chip0", "VOLTAGE", 5, force=True), lambda r: r == 5),
    (lambda a: a.read_hw("chip0", "VOLTAGE"), lambda r: r == 5),
    (lambda a: a.counters(), lambda r: any(each.value for each in r)),
    (lambda a: a.metrics(), lambda r: 'koru_chip_up{chip="chip0"} 1\n' in r and r.endswith("# EOF\n")),
    (lambda a: a.entities(), lambda r: any(each.name == "chip0" for each in r)),
    (lambda a: a.entity("KoruRegFile::TransportMethod", "chip0", "name"),
     lambda r: r == {"name": "'chip0'"}),
    (lambda a: a.subscribe("chip0"), lambda r: r is None),
    (lambda a: a.unsubscribe(), lambda r: r is None),
    (lambda a: a.ask("chip.show", chip="chip0"), lambda r: r["name"] == "chip0"),
]

REFUSALS = [
    (lambda a: a.chip("x"), "noSuchChip"),
    (lambda a: a.read_field("chip0", "monitor", "gian"), "noSuchField"),
    (lambda a: a.write_field("chip0", "monitor", "rate", 16), "badValue"),
    (lambda a: a.write_field("chip0", "monitor", "limit", "0.3 mA"), "badValue"),
    (lambda a: a.write_hw("chip0", "CONTROL", 1), "refused"),
    (lambda a: a.write_fields("chip0", {}, order="x"), "badRequest"),
    (lambda a: a.ask("what"), "unknownOperation"),
]

# What is refused before it is asked.
MISTAKES = [
    (lambda a: a.write_field("chip0", "monitor", "rate", None), TypeError),
    (lambda a: a.write_field("chip0", "monitor", "rate", 1.5), TypeError),
    (lambda a: a.ask("x", what=object()), TypeError),
    (lambda a: a.chip("x" * 70000), ValueError),
]


def test_every_operation(agent):
    for ask, holds in OPERATIONS:
        result = ask(agent)
        assert holds(result), (inspect.getsource(ask), result)
    for ask, kind in REFUSALS:
        with pytest.raises(AgentRefusal) as caught:
            ask(agent)
        assert caught.value.kind == kind and caught.value.reason == str(caught.value)
    for ask, error in MISTAKES:
        with pytest.raises(error):
            ask(agent)
    assert agent.chips()


def test_every_operation_with_asyncio(korud, agent):
    async def main():
        async with AsyncAgent(korud.socket) as client:
            for ask, holds in OPERATIONS:
                result = await ask(client)
                assert holds(result), (inspect.getsource(ask), result)
            for ask, kind in REFUSALS:
                with pytest.raises(AgentRefusal) as caught:
                    await ask(client)
                assert caught.value.kind == kind
            for ask, error in MISTAKES:
                with pytest.raises(error):
                    await ask(client)
            assert await asyncio.gather(*(client.read_hw("chip0", "VOLTAGE") for _ in range(100)))

    asyncio.run(main())


def test_every_operation_is_tested():
    source = inspect.getsource(inspect.getmodule(test_every_operation))
    missing = [name for name in vars(koruregfile.operations.Operations)
               if not name.startswith("_") and f"a.{name}(" not in source]
    assert not missing


def test_events_come_in_order_and_ends_are_told(korud, agent):
    agent.subscribe()
    for value in (2, 3):
        agent.write_field("chip0", "monitor", "rate", value)
    agent.write_field("chip0", "monitor", "start", 1)
    told = list(agent.events(0.2))
    fields = [each for each in told if isinstance(each, FieldEvent)]
    assert [(each.field, each.value, each.pulse) for each in fields] == [
        ("rate", 2, False), ("rate", 3, False), ("start", 1, True)]
    agent.rewrite("chip0")
    assert any(isinstance(each, ChipEvent) for each in agent.events(0.2))
    korud.stop()
    with pytest.raises(AgentGone):
        list(agent.events())
    with pytest.raises(AgentGone, match="has ended"):
        agent.chips()


def test_events_that_are_there_take_no_time(agent):
    agent.subscribe()
    agent.write_field("chip0", "monitor", "rate", 2)
    agent.ask("chip.list")
    assert [each.value for each in agent.events(0)] == [2]


def test_events_with_asyncio(korud, agent):
    async def main():
        async with AsyncAgent(korud.socket) as client:
            await client.subscribe("chip0")
            await asyncio.gather(*(client.write_field("chip0", "monitor", "rate", value)
                                   for value in (2, 3)))
            assert [each.value async for each in client.events(0.2)] == [2, 3]
            waiting = asyncio.create_task(anext(client.events()))
            asked = asyncio.create_task(client.chips())
            await asked
            korud.stop()
            with pytest.raises(AgentGone):
                await waiting
            with pytest.raises(AgentGone):
                await client.chips()

    asyncio.run(main())


def test_nothing_works_behind_a_closed_client(korud, agent):
    with Agent(state_directory=korud.directory) as client:
        assert repr(client) == f"<agent at {korud.socket}>"
    assert client.closed
    with pytest.raises(ValueError, match="closed"):
        client.chips()

    async def main():
        other = AsyncAgent(korud.socket)
        for _ in range(2):
            with pytest.raises(ValueError, match="closed"):
                await other.chips()
            await other.close()

    asyncio.run(main())


def test_metrics_are_what_others_parse(agent):
    parser = pytest.importorskip("prometheus_client.openmetrics.parser")
    agent.write_field("chip0", "monitor", "rate", 7)
    families = {each.name: each for each in parser.text_string_to_metric_families(agent.metrics())}
    assert families["koru_register_writes"].type == "counter"
    assert families["koru_register_access_seconds"].type == "histogram"
    assert [each.value for each in families["koru_chip_up"].samples] == [1] * len(agent.chips())
