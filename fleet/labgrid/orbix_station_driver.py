"""A labgrid driver that flashes a target's module with orbix_station.

The target's serial port must be a port of this machine (RawSerialPort or USBSerialPort): the tool
changes the port's rate during a run, and its waits are short.
"""
import json
import subprocess

import attr
from labgrid.driver import Driver
from labgrid.driver.exception import ExecutionError
from labgrid.factory import target_factory
from labgrid.step import step


@attr.s(eq=False)
class FlashError(ExecutionError):
    """A run that did not end well; `record` is the station's final record, or None."""

    record = attr.ib(default=None)


@target_factory.reg_driver
@attr.s(eq=False)
class OrbixStationDriver(Driver):
    """Runs orbix_station on the target's port.

    Args:
        arguments (list): what stands behind "--", such as ["-m", "TR52G", "-b", "115200"]
        options (list): options of orbix_station itself, such as ["--retries", "1"]
    """

    bindings = {"port": "SerialPort"}

    arguments = attr.ib(validator=attr.validators.instance_of(list))
    options = attr.ib(factory=list, validator=attr.validators.instance_of(list))

    def __attrs_post_init__(self):
        super().__attrs_post_init__()
        tool = self.target.env.config.get_tool("orbix_station") if self.target.env else None
        self.tool = tool or "orbix_station"

    def on_activate(self):
        # A console that is open on the port would take the module's answers.
        for other in self.port.clients:
            if other is not self:
                self.target.deactivate(other)

    @Driver.check_active
    @step(args=["image"], result=True)
    def flash(self, image):
        """Flashes the image of that name (a key of "images" in the environment file, or a path).

        Returns the station's final record. Raises FlashError, with the cause, when the module was
        not flashed.
        """
        try:
            path = self.target.env.config.get_image_path(image)
        except KeyError:
            path = self.target.env.config.resolve_path(image)
        command = [self.tool, "--json", "-", *map(str, self.options), self.port.port, "--"]
        command += [*map(str, self.arguments), "-f", path]
        run = subprocess.run(command, capture_output=True, text=True, check=False)
        record = final_record(run.stdout)
        if record is None:
            raise FlashError(f"orbix_station: status {run.returncode}: {run.stderr.strip()}")
        if run.returncode != 0 or record["result"] != "success":
            raise FlashError(
                f"{record['port']}: {record['cause']}: {record['message']}", record=record
            )
        return record


def final_record(json_lines):
    """The record of the run's end, out of the station's JSON lines."""
    records = [json.loads(line) for line in json_lines.splitlines()]
    ends = [record for record in records if record.get("event") == "result"]
    return ends[-1] if ends else None
