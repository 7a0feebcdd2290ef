import signal

# A shell starts background jobs with SIGINT ignored, and Python then leaves
# it ignored: the Ctrl-C tests need it to raise KeyboardInterrupt wherever
# the suite was started from.
signal.signal(signal.SIGINT, signal.default_int_handler)
