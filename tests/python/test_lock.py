"""The lock of all processes: time-outs, threads, tasks, forks and killed owners."""

import asyncio
import os
import pathlib
import threading

import pytest

import conftest
import shmnm


def in_thread(work):
    """What a call returns or raises in another thread."""
    box = []

    def run():
        try:
            box.append(work())
        except BaseException as error:
            box.append(error)

    thread = threading.Thread(target=run)
    thread.start()
    thread.join()
    return box[0]


def sleeps_in_the_lock(thread):
    """Whether a thread of this process waits for a word of the page that the lock is in."""
    call = pathlib.Path(f"/proc/self/task/{thread}/syscall").read_text().split()
    pages = [line.split()[0].split("-") for line in pathlib.Path("/proc/self/maps").read_text().splitlines() if "oru_kzmshmnm_lock" in line]
    return len(call) > 1 and any(int(begin, 16) <= int(call[1], 16) < int(end, 16) for begin, end in pages)


def try_lock(region):
    """Whether another thread finds the lock free."""

    def take():
        with region.lock(timeout=0):
            return True

    found = in_thread(take)
    assert found is True or isinstance(found, shmnm.LockTimeout)
    return found is True


class TestLock:
    @pytest.mark.parametrize("kind", ["lock", "read_lock"])
    def test_is_held_within_the_block_and_free_after_it(self, region, kind):
        with getattr(region, kind)(timeout=5) as lock:
            assert lock.held
            assert not try_lock(region)
        assert not lock.held
        assert try_lock(region)

    def test_is_free_after_an_error_in_the_block(self, region):
        with pytest.raises(KeyError):
            with region.lock():
                region.servers["nobody"]
        assert try_lock(region)

    def test_may_be_taken_again_by_its_thread(self, region):
        with region.lock():
            with region.read_lock(timeout=0):
                assert not try_lock(region)
            assert not try_lock(region)
        assert try_lock(region)

    def test_time_out_is_an_error_by_code_and_a_time_out_of_python(self, region):
        with region.lock():
            error = in_thread(lambda: region.lock(timeout=0).acquire())
        assert isinstance(error, shmnm.LockTimeout) and isinstance(error, TimeoutError)
        assert error.code == shmnm.Result.LOCK == 17
        assert "lock --who" in str(error)

    @pytest.mark.parametrize("seconds, milliseconds", [(0, 0), (0.0001, 1), (0.25, 250), (5, 5000), (None, 0xFFFFFFFF), (1e12, 0xFFFFFFFE), (float("inf"), 0xFFFFFFFF)])
    def test_seconds_become_milliseconds(self, region, seconds, milliseconds):
        assert region.lock(seconds)._timeout_ms == milliseconds

    @pytest.mark.parametrize("seconds", [-1, -0.001, float("nan")])
    def test_refuses_a_time_out_that_is_none(self, region, seconds):
        with pytest.raises(ValueError):
            region.lock(seconds)

    def test_other_threads_run_while_one_waits(self, region):
        """This thread sees that the other one sleeps in the lock, and lets it go on. It could do neither if the waiter
        kept the interpreter lock."""
        number, box = [], []

        def wait():
            number.append(threading.get_native_id())
            with region.lock(timeout=60):
                box.append("got it")

        thread = threading.Thread(target=wait)
        with region.lock():
            thread.start()
            while not (number and sleeps_in_the_lock(number[0])) and thread.is_alive():
                pass
            assert not box
        thread.join()
        assert box == ["got it"]

    def test_release_by_another_thread_is_refused(self, region):
        with region.lock() as lock:
            error = in_thread(lock.release)
            assert isinstance(error, shmnm.LockMisuse) and "another thread" in str(error)
            assert lock.held and not try_lock(region)
        assert try_lock(region)

    def test_a_lock_object_serves_one_take_at_a_time(self, region):
        with region.lock() as lock:
            with pytest.raises(shmnm.LockMisuse):
                lock.acquire()
            assert isinstance(in_thread(lock.acquire), shmnm.LockMisuse)
        with lock:
            assert lock.held
        with pytest.raises(shmnm.LockMisuse, match="not held"):
            lock.release()

    def test_passes_to_the_next_when_its_thread_ends(self, region):
        in_thread(lambda: region.lock().acquire())
        assert try_lock(region)

    def test_passes_to_the_next_when_its_process_is_killed(self, holder):
        with shmnm.attach() as region:
            assert holder.told("region.lock().acquire()") == "None"
            with pytest.raises(shmnm.LockTimeout):
                region.lock(timeout=0).acquire()
            holder.kill()
            with region.lock(timeout=10) as lock:
                assert lock.held

    def test_may_be_released_after_the_region_was_detached(self, holder):
        with shmnm.attach() as region:
            with region.lock() as lock:
                region.detach()
                assert lock.held
            with shmnm.attach() as again:
                assert try_lock(again)

    def test_a_forked_child_owns_no_lock_and_releases_none(self, region):
        told, tell = os.pipe()
        with region.lock() as lock:
            child = os.fork()
            if child == 0:
                os.close(told)
                held = lock.held
                lock.__exit__(None, None, None)
                try:
                    region.lock(timeout=0).acquire()
                    taken = True
                except shmnm.LockTimeout:
                    taken = False
                os.write(tell, repr((held, taken)).encode())
                os._exit(0)
            os.waitpid(child, 0)
            assert os.read(told, 100) == b"(False, False)"
            assert lock.held and not try_lock(region)
        assert try_lock(region)
        os.close(told)
        os.close(tell)


class TestLockInAsyncio:
    def test_may_be_held_between_two_awaits(self, region):
        async def work():
            with region.lock(timeout=0):
                region.cluster.clstat += 1
            await asyncio.sleep(0)
            with region.lock(timeout=0):
                region.cluster.clstat += 1

        asyncio.run(work())
        assert region.cluster.clstat == 2
        assert try_lock(region)

    def test_held_across_an_await_is_refused_at_the_end_of_the_block(self, region):
        async def work():
            with region.lock():
                await asyncio.sleep(0)

        with pytest.raises(shmnm.LockMisuse, match="across an await"):
            asyncio.run(work())
        assert try_lock(region)

    def test_an_error_in_the_block_is_not_hidden_by_the_refusal(self, region):
        async def work():
            with region.lock():
                await asyncio.sleep(0)
                raise KeyError("mine")

        with pytest.raises(KeyError, match="mine"):
            asyncio.run(work())
        assert try_lock(region)

    def test_another_task_of_the_thread_cannot_take_it_meanwhile(self, region):
        seen = []

        async def other():
            try:
                region.lock(timeout=0).acquire()
            except shmnm.LockMisuse as error:
                seen.append(str(error))

        async def work():
            task = asyncio.ensure_future(other())
            with region.lock():
                await task

        with pytest.raises(shmnm.LockMisuse):
            asyncio.run(work())
        assert len(seen) == 1 and "another task" in seen[0]
        assert try_lock(region)

    def test_a_worker_thread_takes_it_for_a_task(self, region):
        def work():
            with region.lock():
                region.cluster.clstat = 4

        asyncio.run(asyncio.wait_for(_in_worker(work), 60))
        assert region.cluster.clstat == 4
        assert try_lock(region)

    def test_async_with_is_no_way_to_take_it(self, region):
        async def work():
            async with region.lock():
                pass

        with pytest.raises((AttributeError, TypeError)):
            asyncio.run(work())
        assert try_lock(region)


async def _in_worker(work):
    await asyncio.get_running_loop().run_in_executor(None, work)
