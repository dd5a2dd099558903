"""The rooms of the daemon's sources, the lowest first."""

import os

TOP = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", ".."))

with open(f"{TOP}/cmake/rooms.txt", encoding="utf-8") as _file:
    ROOMS = tuple(_file.read().split())
