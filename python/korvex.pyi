"""The frame side of the korvex library: read recordings of frames, decrypt them, and get each frame's
user data as Python data (the shape of korvex-dump --json)."""

import os
from datetime import datetime
from typing import Any, Iterator, Literal, Optional, Union

__version__: str

BytesLike = Union[bytes, bytearray, memoryview]
Source = Union[str, "os.PathLike[str]", bytes, bytearray, memoryview]
Key = Union[str, bytes]
# A user-data object: dicts, lists, str, int, bool and datetime (UTC) for times.
UserData = dict[str, Any]

class Error(Exception):
    """A call of the korvex library failed."""
    message: str
    code: int  # the library's negative result code
    def __init__(self, message: str, code: int) -> None: ...

class FrameError(Error):
    """An invalid frame header (-102) or a frame cut short (-104)."""

class CipherError(Error):
    """An unusable key (-2), a clear frame (-3), a frame too short for the plain cipher (-104)."""

class WrongKeyError(CipherError):
    """Decryption failed: the key is wrong, or the data is no frame (-4)."""

class ExportError(Error):
    """export() failed; code is korvex-export's exit status: 1 broken input (a broken frame, a wrong or
    missing key, no frame in the range), 2 bad arguments or files. Nothing is written then."""

class IndexBlockError(Error):
    """An I-frame index block the library refuses (-104), a sign type out of range (-100)."""

class Frame:
    """One frame of a recording: its header fields, its bytes, and the user data found in it."""
    @property
    def index(self) -> int:
        """Position in the recording, from 0."""
    @property
    def offset(self) -> int:
        """Byte offset in the recording."""
    @property
    def valid(self) -> bool:
        """The frame header is valid."""
    @property
    def frame_len(self) -> int:
        """uiFrameLen: the whole frame, header included."""
    @property
    def payload_len(self) -> int:
        """uiPayloadLen."""
    @property
    def ext_count(self) -> int:
        """usExtCount."""
    @property
    def ext_size(self) -> int:
        """usExtSize."""
    @property
    def frame_no(self) -> int:
        """uiFrameNo, the cipher's counter."""
    @property
    def attr(self) -> int:
        """ucFrameAttr."""
    @property
    def info(self) -> int:
        """uiFrameInfo."""
    @property
    def flags(self) -> int:
        """usFrameFlags as read from the recording."""
    @property
    def held(self) -> int:
        """Bytes of the frame present in the recording."""
    @property
    def error(self) -> Optional[str]:
        """Why the frame is broken, or None."""
    @property
    def encrypted(self) -> bool:
        """The frame was encrypted in the recording (decrypted or not since)."""
    @property
    def mode(self) -> Optional[Literal["plain", "enhanced"]]:
        """The cipher mode the frame had in the recording; None for a frame that was clear there."""
    @property
    def decrypted(self) -> bool:
        """The frame was encrypted in the recording and its bytes are clear now."""
    @property
    def key_frame(self) -> bool:
        """The clear payload holds a key picture (H.264 IDR, H.265 IRAP); False while encrypted."""
    @property
    def data(self) -> memoryview:
        """The frame's bytes, header included (read-only, no copy)."""
    @property
    def payload(self) -> memoryview:
        """The payload behind the header (read-only, no copy)."""
    def decrypt(self, key: Key) -> None:
        """Decrypts the frame in place and analyses its user data, alone."""
    def userdata(self) -> Optional[UserData]:
        """The frame's user data: korvex-dump's 'userdata' object, times as datetime in UTC."""
    def report(self) -> UserData:
        """Everything korvex-dump --json prints for the frame."""

class FrameReader(Iterator[Frame]):
    """Iterator over the frames of a recording."""
    def __iter__(self) -> FrameReader: ...
    def __next__(self) -> Frame: ...

def read_frames(source: Source, key: Optional[Key] = None, codec: Literal["auto", "h264", "h265"] = "auto",
                strict: bool = True, mask: Union[None, int, Literal["all"]] = None) -> FrameReader:
    """Iterates the frames of a recording (a path, bytes or a buffer), decrypting with key, joining user
    data split over frames. strict=True raises at the first broken frame; strict=False yields it and walks on as
    korvex-dump does. mask
    (a number or 'all') chooses the two-layout analysis, as korvex-dump --mask does."""

def probe(data: BytesLike) -> Optional[Literal["h264", "h265"]]:
    """'h264' or 'h265' when the library's probes recognise the Annex B byte stream, else None."""

def encrypt_frame(frame: Union[BytesLike, Frame], key: Key, mode: Literal["plain", "enhanced"]) -> bytes:
    """An encrypted copy of a clear frame."""

def iframe_index(data: BytesLike, sign: int = 0) -> list[dict[str, int]]:
    """The items of an I-frame index block with the sign type (0 all, 1 to 5): ordinal, word, stamp,
    mask, restarts."""

def stream_info(head: BytesLike, frame: Union[BytesLike, Frame]) -> dict[str, int]:
    """What a stream head block and a frame header say (TStreamInfo as a dict)."""

def export(source: Source, out: Union[str, "os.PathLike[str]"], key: Optional[Key] = None,
           start: Union[None, datetime, str, float] = None, end: Union[None, datetime, str, float] = None,
           vtt: Union[None, str, "os.PathLike[str]"] = None, csv: Union[None, str, "os.PathLike[str]"] = None,
           json: Union[None, str, "os.PathLike[str]"] = None, frames: Optional[tuple[Optional[int], Optional[int]]] = None,
           index: Union[None, str, "os.PathLike[str]"] = None, fps: Optional[float] = None,
           data_track: bool = True) -> dict[str, Any]:
    """Writes the recording's pictures into out (.mp4, .m4v, .mov, .mkv) without re-encoding, each at
    its own time, as korvex-export does: start/end (datetime, naive ones UTC; ISO 8601 text; seconds
    since 1970) cut a clip that opens at the key frame at or before start; frames=(first, last) cuts by
    frame numbers, last included; vtt, csv and json write the side files; index is an I-frame index of
    the recording. Returns frames, first_frame, last_frame, start, end, device_times and broken.
    Raises ExportError; nothing is written then."""
