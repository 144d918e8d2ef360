"""For those who write the scripts of pgm_python: the contracts of the scripts, a checker and a bench to test on.

    operations      what each operation calls, with which arguments, and what it wants back
    protocols       the same as types, for a type checker
    bench           calls a function as an operation does, and tells what the program would see
    pytest_plugin   the bench as fixtures: pytest -p pgm_python_authors.pytest_plugin
    check           the program pgm_python_check; python3 -m pgm_python_authors is the same

Needs Python 3.7 or newer and nothing else; the C++ library need not be there.
"""

__version__ = "1.0.0"
