"""The labgrid recipe: its environment file and its driver, with a simulated module.

Run by pytest; ORBIX_BIN_DIR is the folder of the built programs.
"""
import hashlib
import os
import pathlib
import subprocess

import pytest
from labgrid import Environment, Target
from labgrid.exceptions import NoSupplierFoundError
from labgrid.resource import NetworkSerialPort

ROOT = pathlib.Path(__file__).parents[2]
PROGRAMS = pathlib.Path(os.environ["ORBIX_BIN_DIR"])
IMAGE_OFFSET = 0x9000


class Module:
    """A simulated module, and what its flash holds once it is stopped."""

    def __init__(self, folder, *options):
        self.dump = folder / "flash.bin"
        self.process = subprocess.Popen(
            [PROGRAMS / "orbix_sim", "TR52G", "--dump", self.dump, *options],
            stdout=subprocess.PIPE,
            text=True,
        )
        self.port = self.process.stdout.readline().strip()

    def stop(self):
        self.process.terminate()
        self.process.wait()
        return self.dump.read_bytes()


@pytest.fixture(scope="session")
def target(tmp_path_factory):
    """The target of the environment file. Its driver is registered once in a process."""
    folder = tmp_path_factory.mktemp("firmware")
    blocks = (hashlib.sha256(b"%d" % block).digest() for block in range(20000 // 32))
    (folder / "app.bin").write_bytes(b"".join(blocks))
    with pytest.MonkeyPatch.context() as patch:
        patch.setenv("LG_MODULE_PORT", "/dev/ttyNone")
        patch.setenv("LG_FIRMWARE", str(folder / "app.bin"))
        patch.setenv("LG_ORBIX_STATION", str(PROGRAMS / "orbix_station"))
        environment = Environment(str(ROOT / "fleet/labgrid/environment.yaml"))
        yield environment.get_target("main")


@pytest.fixture
def image(target):
    return pathlib.Path(target.env.config.get_image_path("firmware")).read_bytes()


@pytest.fixture
def start(target, tmp_path):
    """Starts a module with these options and puts its port into the target."""
    modules = []

    def start_module(*options):
        modules.append(Module(tmp_path, *options))
        target.get_resource("RawSerialPort").port = modules[-1].port
        return modules[-1]

    yield start_module
    for client in list(target.get_resource("RawSerialPort").clients):
        target.deactivate(client)
    for module in modules:
        module.process.kill()
        module.process.wait()


def test_module_of_the_target_is_flashed(start, target, image):
    module = start()
    record = target.get_driver("OrbixStationDriver").flash("firmware")
    assert record["result"] == "success"
    assert record["port"] == module.port
    assert record["bytes"] == len(image)
    assert record["firmware"][0]["sha256"] == hashlib.sha256(image).hexdigest()
    assert module.stop()[IMAGE_OFFSET:].startswith(image)


def test_failure_is_an_exception_that_holds_the_record(start, target, image):
    module = start("--faults", "flip=3@30")
    with pytest.raises(Exception, match=": refused: ") as raised:
        target.get_driver("OrbixStationDriver").flash("firmware")
    assert raised.type.__name__ == "FlashError"
    assert raised.value.record["cause"] == "refused"
    assert not module.stop()[IMAGE_OFFSET:].startswith(image)


def test_image_that_is_absent_is_told(start, target):
    start()
    with pytest.raises(Exception, match=": file: "):
        target.get_driver("OrbixStationDriver").flash("/nowhere/app.bin")


def test_wrong_arguments_are_told_in_the_words_of_the_station(start, target):
    start()
    driver = target.get_driver("OrbixStationDriver")
    arguments, driver.arguments = driver.arguments, ["-b", "115200"]
    with pytest.raises(Exception, match="status 2: .*model"):
        driver.flash("firmware")
    driver.arguments = arguments


def test_console_gives_way_to_the_station_and_comes_back(start, target):
    start()
    console = target.get_driver("SerialDriver")
    assert console.serial.is_open
    station = target.get_driver("OrbixStationDriver")
    assert not console.serial.is_open
    assert station.flash("firmware")["result"] == "success"
    target.activate(console)
    assert console.serial.is_open


def test_port_on_the_network_is_declined(start, target):
    start()
    driver = type(target.get_driver("OrbixStationDriver"))
    remote = Target("remote")
    NetworkSerialPort(remote, None, host="bench1", port=4000)
    with pytest.raises(NoSupplierFoundError):
        driver(remote, None, arguments=["-m", "TR52G"])
