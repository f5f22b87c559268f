/* Anchor for the shared library; the code lives in minitf_core. */
