"""camlab: a virtual camera made of kernel namespaces, for demonstrations, tests and benchmarks."""

from .bus import BusError, Client, Signal
from .camera import Camera, CameraOptions
from .interfaces import FAST_ETHERNET, GIGABIT_ETHERNET, LinkModes, Mode
from .lan import Cable, Lan
from .namespaces import CameraError, Machine, Process
from .recorder import Command, Recorder, Rule
from .waiting import wait_until

__all__ = [
    "FAST_ETHERNET",
    "GIGABIT_ETHERNET",
    "BusError",
    "Cable",
    "Camera",
    "CameraError",
    "CameraOptions",
    "Client",
    "Command",
    "Lan",
    "LinkModes",
    "Machine",
    "Mode",
    "Process",
    "Recorder",
    "Rule",
    "Signal",
    "wait_until",
]
