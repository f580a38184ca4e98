"""A machine that was suspended: its clock has gone on meanwhile (Linux)."""
import bridge_support
from bridge_support import BridgeTest
import etcd_support


class Suspended(BridgeTest):
    def test_nothing_is_fresh_after_the_machine_was_suspended(self):
        etcd = etcd_support.Cluster(self.addCleanup)
        alpha, beta = self.machine("alpha", etcd.endpoints).create(), self.machine("beta", etcd.endpoints).create()
        asleep = alpha.folder / "asleep"
        asleep.write_bytes(b"")
        alpha.environment.update(LD_PRELOAD=str(bridge_support.FOLDER.resolve() / "suspended_clock.so"), SHMNM_SUSPENDED=str(asleep))
        alpha.start()
        beta.start()
        alpha.waits_for_freshness("beta", "fresh")
        # Nothing new comes: what the machine knows is from before.
        etcd.members[0].stop()
        self.addCleanup(etcd.members[0].go_on)
        hour = 3_600
        asleep.write_bytes(bytes(hour))
        alpha.waits_for_freshness("beta", "unknown")
        status = alpha.status()
        self.assertGreaterEqual(status["servers"][0]["age_ms"], hour * 1_000)
        self.assertEqual((status["up"], status["connected"]), (True, False))
        etcd.members[0].go_on()
        alpha.waits_for_freshness("beta", "fresh")
        self.assertLess(alpha.status()["servers"][0]["age_ms"], hour * 1_000)


if __name__ == "__main__":
    bridge_support.main()
