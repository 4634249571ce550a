"""The demo's story, chapter by chapter; each checks its claims."""

import collections
import signal

from controller import Controller, WriteFailed
from entries import Entry, Group, Member, Meter, Weighted
from packet_story import PacketStory
from stage import DemoError, expect, step, tell, wait_until

DERIVED = "resolved_route"  # what a query of the pipeline makes from other tables


class Demo:
    """The story. Keeps the entries that the switch ought to hold, and compares after every chapter."""

    def __init__(self, switch):
        self.switch = switch
        self.controller = None
        self.wanted = {}  # the key of an entry, member or group -> the same

    def run(self):
        self.start()
        self.connect(election_id=1)
        self.insert_entries()
        self.modify_and_delete()
        self.refusals()
        self.failure_in_hardware()
        self.derived_table()
        self.weighted_ecmp()
        self.traffic_and_counters()
        self.failure_in_a_group()
        self.meters()
        if self.switch.cables:
            PacketStory(self.switch, self.controller).run()
        self.table_use()
        self.crash_and_restart()
        self.disable_and_enable()

    def start(self):
        step("Make the pipeline file from what a P4 compiler says of router.p4 and our constant"
             " entries")
        self.switch.build_pipeline()
        step("Start the agent, which serves P4Runtime, and the forwarding agent, which programs"
             " tables")
        self.switch.write_configuration()
        self.switch.start_agent()
        self.switch.start_forwarder()

    def connect(self, election_id):
        step(f"Become primary with election id {election_id}, and fetch the pipeline")
        if self.controller:
            self.controller.close()
        self.controller = Controller(self.switch.server, election_id=election_id)
        wait_until(lambda: self.controller.connected(1) and self.controller.read() is not None,
                   "P4Runtime server with a pipeline", *self.switch.processes())
        self.controller.become_primary()
        tables = [table.preamble.alias for table in self.controller.pipeline.p4info.tables]
        tell(f"primary on {self.switch.server}; tables: {', '.join(tables)}")

    # What the switch ought to hold.

    @staticmethod
    def key(thing):
        if isinstance(thing, (Member, Group)):
            return type(thing), thing.profile, thing.id
        return thing.table, tuple(sorted(thing.match.items())), thing.priority

    def normal(self, thing):
        """As the switch will spell it."""
        pipeline = self.controller.pipeline
        return pipeline.thing(pipeline.entity(thing))

    def remember(self, *things):
        for thing in map(self.normal, things):
            self.wanted[self.key(thing)] = thing

    def forget(self, *things):
        for thing in map(self.normal, things):
            del self.wanted[self.key(thing)]

    def wanted_rows(self):
        """One for each, and for a one-shot set those of its hidden members and their group."""
        sets = [thing.one_shot for thing in self.wanted.values()
                if isinstance(thing, Entry) and thing.one_shot]
        return len(self.wanted) + sum(len(actions) + 1 for actions in sets)

    def forwarder_rows(self):
        lines = self.switch.tell_forwarder("dump", quiet=True).splitlines()
        return [line for line in lines if line.strip() and not line.startswith(DERIVED)]

    def check_switch(self):
        """The controller's view against what we asked for, and the forwarding agent's count."""
        things = self.controller.read() + self.controller.members() + self.controller.groups()
        held = {self.key(thing): thing for thing in things}
        for key, thing in held.items():
            expect(self.wanted.get(key) == thing, f"the switch holds, against expectation: {thing}")
        for key, thing in self.wanted.items():
            expect(key in held, f"the switch lacks: {thing}")
        rows = self.forwarder_rows()
        expect(len(rows) == self.wanted_rows(),
               f"the forwarding agent holds {len(rows)} rows, not {self.wanted_rows()}:\n" +
               "\n".join(rows))
        tell(f"checked: the controller finds all {len(held)} things as it wrote them, and the"
             f" forwarding agent holds their {len(rows)} rows")

    # The chapters.

    def insert_entries(self):
        step("Read the constant entries, which the agent programmed by itself")
        for entry in self.controller.read("packet_type"):
            tell(entry)
            self.remember(entry)
        expect(len(self.wanted) == 3, "the pipeline has three constant entries")

        step("Insert ports, next hops, neighbors, routes and an access rule: one batch, one answer")
        entries = [
            Entry("port", {"ingress_port": 1}, "set_vrf", {"vrf_id": 1}),
            Entry("port", {"ingress_port": 2}, "set_vrf", {"vrf_id": 1}),
            Entry("nexthop", {"nexthop_id": 7}, "forward",
                  {"port": 2, "smac": "02:00:00:00:00:02", "neighbor_id": 70}),
            Entry("neighbor", {"port": 2, "neighbor_id": 70}, "set_dst_mac",
                  {"dmac": "02:00:00:00:07:00"}),
            Entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.0.0.0/8"}, "set_nexthop",
                  {"nexthop_id": 7}),
            Entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.20.0.0/16"}, "drop"),
            Entry("ipv6_route", {"vrf_id": 1, "ipv6_dst": "2001:db8::/32"}, "set_nexthop",
                  {"nexthop_id": 7}),
            Entry("acl", {"src_ip": "10.0.0.0&&&255.0.0.0", "ip_protocol": 6, "l4_dst_port": 23},
                  "acl_drop", priority=100),
        ]
        self.controller.insert(*entries)
        self.remember(*entries)
        for table in ("port", "nexthop", "neighbor", "ipv4_route", "ipv6_route", "acl"):
            for read in self.controller.read(table):
                tell(read)
        self.check_switch()

    def modify_and_delete(self):
        step("Modify a route, delete another, and read one entry by its key")
        changed = Entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.0.0.0/8"}, "drop")
        gone = Entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.20.0.0/16"})
        self.controller.modify(changed)
        self.controller.delete(gone)
        self.remember(changed)
        self.forget(gone)
        tell(self.controller.read_one(changed))
        expect(self.controller.read_one(changed) == self.normal(changed), "the modify took effect")
        expect(self.controller.read_one(gone) is None, "the delete took effect")
        self.check_switch()

    def written(self, updates):
        """Writes a batch that should fail in part; answers the code of each update."""
        try:
            self.controller.write(updates)
        except WriteFailed as failure:
            for number, error in enumerate(failure.errors):
                tell(f"update {number + 1}: {failure.code(number)} {error.message}".rstrip())
            return [failure.code(number) for number in range(len(updates))]
        raise DemoError("a batch with bad updates was answered with OK")

    def refusals(self):
        step("Bad updates are refused one by one, with the reason; good ones of the batch stand")
        good = Entry("port", {"ingress_port": 3}, "drop")
        codes = self.written([
            self.controller.update("INSERT", Entry("port", {"ingress_port": 1}, "drop")),
            self.controller.update("INSERT", good),
            self.controller.update("DELETE", Entry("port", {"ingress_port": 99})),
        ])
        expect(codes == ["ALREADY_EXISTS", "OK", "NOT_FOUND"], f"got {codes}")
        self.remember(good)
        self.check_switch()

    def failure_in_hardware(self):
        step("Let the forwarding agent refuse one route, as hardware does when it runs out of room")
        self.switch.tell_forwarder("fail-code", "13")
        self.switch.tell_forwarder("fail-key", "ipv4_route:ipv4_dst=10.66.0.0/16")
        self.switch.tell_forwarder("fail-key", "ipv4_route:ipv4_dst=10.0.0.0/8")
        first = Entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.65.0.0/16"}, "drop")
        refused = Entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.66.0.0/16"}, "drop")
        changed = Entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.0.0.0/8"},
                             "set_nexthop", {"nexthop_id": 7})
        last = Entry("ipv6_route", {"vrf_id": 1, "ipv6_dst": "2001:db8:67::/48"}, "drop")
        codes = self.written([self.controller.update("INSERT", first),
                              self.controller.update("INSERT", refused),
                              self.controller.update("MODIFY", changed),
                              self.controller.update("INSERT", last)])
        expect(codes == ["OK", "RESOURCE_EXHAUSTED", "RESOURCE_EXHAUSTED", "OK"], f"got {codes}")
        self.remember(first, last)
        tell("the refused route was taken back, the changed one is as it was:")
        expect(self.controller.read_one(refused) is None, "a refused insert leaves nothing")
        tell(self.controller.read_one(changed))
        self.check_switch()
        self.switch.tell_forwarder("clear")
        self.controller.insert(refused)
        self.remember(refused)
        tell("once there is room, the same route goes in")
        self.check_switch()

    def derived_table(self):
        step("A query joins routes, next hops and neighbors: its table follows, write by write")
        route = Entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.67.0.0/16"}, "set_nexthop",
                      {"nexthop_id": 7})
        self.controller.insert(route)
        rows = self.switch.korvel_run("table", "dump", DERIVED)
        expect("10.67.0.0/16" in rows and "02:00:00:00:07:00" in rows, "the route is resolved")
        self.controller.delete(route)
        rows = self.switch.korvel_run("table", "dump", DERIVED)
        expect("10.67.0.0/16" not in rows, "it goes with its route")

    def weighted_ecmp(self):
        step("Weighted ECMP: a group of two next hops, three flows in four to the first of them")
        members = [Member("wcmp_selector", 1, "set_nexthop", {"nexthop_id": 7}),
                   Member("wcmp_selector", 2, "set_nexthop", {"nexthop_id": 8})]
        things = [
            Entry("nexthop", {"nexthop_id": 8}, "forward",
                  {"port": 3, "smac": "02:00:00:00:00:03", "neighbor_id": 80}),
            Entry("neighbor", {"port": 3, "neighbor_id": 80}, "set_dst_mac",
                  {"dmac": "02:00:00:00:08:00"}),
            *members,
            Group("wcmp_selector", 10, {1: 3, 2: 1}),
            Entry("wcmp", {"wcmp_id": 1}, group=10),
            Entry("ipv4_route", {"vrf_id": 1, "ipv4_dst": "10.30.0.0/16"}, "set_wcmp",
                  {"wcmp_id": 1}),
        ]
        self.controller.insert(*things)
        self.remember(*things)
        for thing in things[2:]:
            tell(thing)
        tell("in a row of shared memory, a member stands as often as its weight says:")
        self.switch.run([self.switch.korvel, "table", "dump", "wcmp_selector.group",
                         "--state-dir", self.switch.state])

        step("In one shot: a bundle of links brings its own actions, and they go with it")
        links = [Weighted("set_port", {"port": 4}, 2), Weighted("set_port", {"port": 5}, 1)]
        bundle = Entry("lag", {"port": 3}, one_shot=links)
        gone = Entry("lag", {"port": 2}, one_shot=links)
        self.controller.insert(bundle, gone)
        self.controller.delete(gone)
        self.remember(bundle)
        tell(self.controller.read_one(bundle))
        self.check_switch()

    def traffic_and_counters(self):
        step("Send traffic through the forwarding agent, and read what routes and groups counted")
        self.switch.tell_forwarder("traffic", "20000")
        counts = wait_until(self.moved_counts, "counts that move", *self.switch.processes())
        self.switch.tell_forwarder("traffic", "0")
        for entry, count in counts:
            tell(f"{entry}: {count}")
        tell("each group's members got their shares; the first one's are as 3 to 1:")
        shares = [line for line in self.switch.tell_forwarder("traffic", quiet=True).splitlines()
                  if line.startswith("group")]
        tell("\n".join(shares))
        expect(70 < float(shares[0].split()[-1].rstrip("%")) < 80, "the shares are not by weight")

    def moved_counts(self):
        """What routes and groups have counted, once that is something for each of them."""
        counts = [counted for table in ("ipv4_route", "ipv6_route", "wcmp")
                  for counted in self.controller.counts(table)]
        return counts if all(count.packets > 100 for _, count in counts) else None

    def failure_in_a_group(self):
        step("Let the forwarding agent refuse a group's change, and a member's: both are put back")
        group = Group("wcmp_selector", 10, {1: 1, 2: 1})
        member = Member("wcmp_selector", 1, "set_nexthop", {"nexthop_id": 8})
        self.switch.tell_forwarder("fail-code", "13")
        for table, changed in (("group", group), ("member", member)):
            self.switch.tell_forwarder("fail-table", f"wcmp_selector.{table}")
            codes = self.written([self.controller.update("MODIFY", changed)])
            expect(codes == ["RESOURCE_EXHAUSTED"], f"got {codes}")
            self.check_switch()
        self.switch.tell_forwarder("clear")
        tell("a member that a group holds cannot be deleted from under it:")
        codes = self.written([self.controller.update("DELETE", member)])
        expect(codes == ["FAILED_PRECONDITION"], f"got {codes}")
        self.controller.modify(group)
        self.remember(group)
        tell(*self.controller.groups())
        self.check_switch()

    def meters(self):
        step("Limit what an access rule lets through: a direct meter, in bytes a second")
        rule = Entry("acl", {"ip_protocol": 17, "l4_dst_port": 53}, "acl_permit", priority=50,
                     meter=Meter(cir=125000, cburst=16000, pir=250000, pburst=32000))
        self.controller.insert(rule)
        self.remember(rule)
        tell(self.controller.read_one(rule))
        rule.meter = Meter(cir=500000, cburst=64000, pir=500000, pburst=64000)
        self.controller.meter_is(rule, rule.meter)
        self.remember(rule)
        tell(f"changed: {self.controller.meter(rule)}")
        self.check_switch()

    def table_use(self):
        step("Ask a plugin, a shared library that the agent has loaded: how full is each table?")

        def published():
            use = self.switch.attributes("p4runtime/status/plugin/table-use")["published"]
            right = all(use.get(table, "").startswith(f"entries={count} ")
                        for table, count in self.entry_counts().items())
            return use if right else None

        use = wait_until(published, "statistics of table use", *self.switch.processes())
        for table in self.entry_counts():
            tell(f"{table}: {use[table]}")

    def entry_counts(self):
        return collections.Counter(thing.table for thing in self.wanted.values()
                                   if isinstance(thing, Entry))

    def disable_and_enable(self):
        step("Disable the agent: pipeline and plugins clean up, and it ends; traffic flows on")
        self.switch.korvel_run("disable")
        status = self.switch.agent.status()
        expect(status == 0, f"the agent ends with status 0, not {status}")
        rows = self.forwarder_rows()
        expect(len(rows) == self.wanted_rows(), "the forwarding agent keeps every row")
        step("Start it disabled, as a switch does before it is told to serve, and enable it")
        self.switch.write_configuration(enabled=False)
        self.switch.start_agent()
        status = wait_until(lambda: self.switch.attributes("p4runtime/status/agent"),
                            "answer of the agent", *self.switch.processes())
        expect(not status["serverReady"], "a disabled agent serves no controllers")
        self.switch.korvel_run("enable")
        self.connect(election_id=3)
        self.check_switch()

    def crash_and_restart(self):
        step("Kill the agent at once (SIGKILL): its tables stay in shared memory, traffic flows on")
        self.switch.agent.end(signal.SIGKILL)
        rows = self.forwarder_rows()
        expect(len(rows) == self.wanted_rows(), "the forwarding agent keeps every row")
        tell(f"the forwarding agent still holds {len(rows)} rows")
        step("Start the agent again: it knows every entry, group and meter, and its controllers"
             " connect anew")
        self.switch.start_agent()
        self.connect(election_id=2)
        self.check_switch()
        codes = self.written([self.controller.update(
            "INSERT", Entry("port", {"ingress_port": 1}, "drop"))])
        expect(codes == ["ALREADY_EXISTS"], f"got {codes}")
        fresh = Entry("port", {"ingress_port": 4}, "set_vrf", {"vrf_id": 2})
        self.controller.insert(fresh)
        self.remember(fresh)
        self.check_switch()
