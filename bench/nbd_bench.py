"""The nbdkit filter beside the bare plugin: nbd_bench.py FILTER DIFCTL. In every round each server has its turn;
the ratios are those of one round, and their median over the rounds counts."""
import json, os, pathlib, statistics, subprocess, sys, tempfile, time

FILTER, DIFCTL = sys.argv[1:]
# ONLY: a part of the names of what is to be measured.
ROUNDS, SECONDS = int(os.environ.get("ROUNDS", "5")), os.environ.get("SECONDS", "1.5")
SIZE = 256 << 20
TICK = os.sysconf("SC_CLK_TCK")


def cpu(pid):
    """Processor seconds of a process so far."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / TICK


class Server:
    def __init__(self, folder, name, *words):
        self.uri = f"nbd+unix:///?socket={folder}/{name}"
        self.process = subprocess.Popen(["nbdkit", "-f", "-U", f"{folder}/{name}", *words])
        while not os.path.exists(f"{folder}/{name}"):
            time.sleep(0.01)

    def measure(self, work):
        """Bytes a second, and processor seconds of the server a byte."""
        before, began = cpu(self.process.pid), time.monotonic()
        moved, seconds = work(self.uri)
        return moved / (seconds or time.monotonic() - began), (cpu(self.process.pid) - before) / moved


def fio(kind, size, depth):
    def work(uri):
        command = ["fio", "--name=x", "--ioengine=nbd", f"--uri={uri}", f"--rw={kind}", f"--bs={size}", f"--iodepth={depth}",
                   f"--size={SIZE}", "--time_based", f"--runtime={SECONDS}", "--output-format=json", "--randseed=1"]
        told = subprocess.run(command, check=True, capture_output=True, text=True).stdout
        job = json.loads(told[told.index("{"):])["jobs"][0]
        side = job["write" if "write" in kind else "read"]
        return side["io_bytes"], side["runtime"] / 1000
    return work


def copyOut(uri):
    subprocess.run(["nbdcopy", uri, "null:"], check=True)
    return SIZE, None


def copyIn(source):
    def work(uri):
        subprocess.run(["nbdcopy", source, uri], check=True)
        return SIZE, None
    return work


def main():
    with tempfile.TemporaryDirectory(dir="/dev/shm") as folder:
        raw = f"{folder}/raw"
        with open(raw, "wb") as file:
            for _ in range(SIZE >> 20):
                file.write(os.urandom(1 << 20))
        source = f"{folder}/source"
        os.link(raw, source)
        servers = {"bare": Server(folder, "bare", "file", raw)}
        for block, data in (520, 512), (4160, 4096):
            subprocess.run([DIFCTL, "protect", "--block", str(block), raw, f"{folder}/{block}"], check=True)
            servers[block] = Server(folder, f"n{block}", f"--filter={FILTER}", "file", f"{folder}/{block}", f"dif-block={data}")
        works = {f"{kind} {name}": fio(kind, size, depth) for name, size, depth in
                 (("4 KiB", "4k", 16), ("64 KiB", "64k", 8), ("1 MiB", "1m", 4)) for kind in ("randread", "randwrite")}
        works |= {"nbdcopy from": copyOut, "nbdcopy to": copyIn(source)}
        works = {name: work for name, work in works.items() if os.environ.get("ONLY", "") in name}
        print(f"{'':18}{'processor time':>24}{'throughput':>24}\n{'':18}" + f"{'520':>12}{'4160':>12}" * 2)
        for name, work in works.items():
            rounds = [{key: server.measure(work) for key, server in servers.items()} for _ in range(ROUNDS)]
            print(f"{name:18}" + "".join(
                f"{statistics.median(one[block][what] / one['bare'][what] for one in rounds):12.2f}"
                for what in (1, 0) for block in (520, 4160)), flush=True)
        for server in servers.values():
            server.process.terminate()


main()
