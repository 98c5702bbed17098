#!/usr/bin/env python3
"""Downloads one link to one file inside asyncio: download.py LINK FILE

Ctrl-C stops the download, and the same command resumes it. The script loads the shared library:
build ravelin with "cmake -S . -B build -DBUILD_SHARED_LIBS=ON", then install it or set
RAVELIN_LIBRARY, for example to build/src/libravelin.so.0.1.
"""

import asyncio
import ctypes
import os
import signal
import sys
from ctypes import c_bool, c_char_p, c_double, c_int, c_int64, c_void_p

DOWNLOADING, CANCELLED, ERROR, SUCCESS = 3, 4, 5, 8
RESUME = 0


class Progress(ctypes.Structure):
    _fields_ = [
        ("received_bytes", c_int64),
        ("content_length", c_int64),
        ("fraction", c_double),
        ("is_at_snap_point", c_bool),
    ]


class Event(ctypes.Structure):
    _fields_ = [
        ("status", c_int),
        ("progress", Progress),
        ("also_cleared_files", c_bool),
        ("main_file", c_char_p),
        ("resume_file", c_char_p),
        ("error_kind", c_int),
        ("error_code", c_int),
        ("error_domain", c_char_p),
        ("error_text", c_char_p),
    ]


Callback = ctypes.CFUNCTYPE(None, c_void_p, ctypes.POINTER(Event))

library = ctypes.CDLL(os.environ.get("RAVELIN_LIBRARY", "libravelin.so.0.1"))
library.ravelin_operation_new.restype = c_void_p
library.ravelin_operation_free.argtypes = [c_void_p]
library.ravelin_operation_cancel.argtypes = [c_void_p]
library.ravelin_operation_resume.argtypes = [
    c_void_p, c_char_p, c_char_p, c_bool, c_int, Callback, c_void_p,
]
library.ravelin_options_new.restype = c_void_p
library.ravelin_options_set_careful.argtypes = [c_void_p]
library.ravelin_set_default_options.argtypes = [c_void_p]


async def download(link, file):
    loop = asyncio.get_running_loop()
    loop.add_reader(library.ravelin_main_queue_descriptor(), library.ravelin_main_queue_drain)
    end = loop.create_future()

    @Callback
    def on_event(_user, event):
        event = event.contents
        if event.status == DOWNLOADING:
            progress = event.progress
            percent = f"{progress.fraction:6.0%}" if progress.fraction >= 0 else ""
            print(f"\r{progress.received_bytes} bytes{percent}", end="", flush=True)
        elif event.status == ERROR:
            end.set_result(event.error_text.decode())
        elif event.status in (SUCCESS, CANCELLED):
            end.set_result("stopped" if event.status == CANCELLED else None)

    operation = library.ravelin_operation_new()
    loop.add_signal_handler(signal.SIGINT, library.ravelin_operation_cancel, operation)
    library.ravelin_operation_resume(
        operation, link.encode(), os.fsencode(file), True, RESUME, on_event, None
    )
    error = await end
    library.ravelin_operation_free(operation)
    print(f"\n{error or 'done'}")
    return 1 if error else 0


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: download.py LINK FILE")
    options = library.ravelin_options_new()
    library.ravelin_options_set_careful(options)  # reject error pages and changed content
    library.ravelin_set_default_options(options)
    sys.exit(asyncio.run(download(sys.argv[1], sys.argv[2])))
