import os
import sys

if not __package__:
    sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

from pgm_python_authors.check import main

if __name__ == "__main__":
    sys.exit(main())
