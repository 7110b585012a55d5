"""The toolkit's functions for Python. Imported by other files, not started."""
import ctypes


def load(toolkit):
    library = ctypes.CDLL(toolkit)
    library.VCTK_Initialize.restype = ctypes.c_void_p
    library.VCTK_Initialize.argtypes = [ctypes.c_char_p]
    library.VCTK_SetDigestAlg.argtypes = [ctypes.c_void_p, ctypes.c_char_p]
    library.VCTK_P7Sign.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int, ctypes.c_int, ctypes.c_int]
    return library
