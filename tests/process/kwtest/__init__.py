"""What the whole-process tests share: an isolated device, its log, its daemon and its requesters."""

from .case import Case, main
from .settings import SETTINGS

__all__ = ["Case", "SETTINGS", "main"]
