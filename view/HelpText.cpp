#include "CommandLine.hpp"

namespace view {

std::string helpText() {
  return R"(Usage: xrdefrag-view [OPTION]... DEVICE
       xrdefrag-view --compare [OPTION]... BEFORE AFTER
Look at an HFS Plus volume, defragment it, and report on it.

DEVICE is a block device (/dev/sdb2, or just sdb2) or an image file. In a
terminal the program shows a map of the volume and its most fragmented files,
and waits for keys (h lists them). Otherwise it prints a short report and ends.
It runs as you; only xrdefrag, which it starts for the volume, gets the
privilege that the device needs, and no more.

What to print:
  -s, --summary         a short report, in a terminal too
  -j, --json            the same and much more for scripts, as one JSON object
  -r, --report FILE     write a page (HTML) with the map, histograms and lists
                        of files into FILE
  -o, --save FILE       keep the picture of the volume in FILE, for --compare
      --compare         compare two pictures that were kept; goes with
                        --report, --json and --summary

What to do with the volume:
  -d, --defrag          put every file in one piece; a report then shows the
                        volume before and after
  -c, --compact         move all data to the front
      --profile LIST    when defragmenting, put these files first: boot, app,
                        or both with a comma between them
  -y, --yes             do not ask before the volume is rewritten

How to do it:
  -x, --hfsx            take case-sensitive (HFSX) volumes too
  -L, --lowpri          leave the disk to everybody else
      --privilege HOW   where xrdefrag gets its root from: auto (the least
                        that will do; the default), none, userns, sudo, pkexec
      --program FILE    the xrdefrag to start; otherwise it is the one next to
                        this program, or else on PATH
      --ascii           draw with ASCII characters only
      --no-color        draw without colours; so does the environment variable
                        NO_COLOR when it is not empty
  -h, --help            print this text and end
      --version         print the version and end

Privilege: root needs none. A device that you may read and write, or an image
that you may read, is opened in a user namespace, which gives xrdefrag no right
that you do not have. Any other takes sudo where there is a terminal to ask for
a password, or pkexec.

A volume is rewritten only when it is not mounted. A run can be stopped at any
time, by a key, ^C, or the end of this program: xrdefrag then comes to its next
safe point and ends, and the volume is sound.

Exit status:
  0  all was done
  1  xrdefrag refused the volume or the command; the message says why
  2  the command line makes no sense
  3  xrdefrag was not found, or did not get its privilege
  4  xrdefrag ended before it had answered
  5  stopped by a signal, or the question before rewriting not answered by yes
  6  a file to write, or to compare, could not be used

Examples:
  xrdefrag-view volume.img
  xrdefrag-view --summary /dev/sdb2
  xrdefrag-view --defrag --yes --report result.html /dev/sdb2
  xrdefrag-view --json volume.img >volume.json
)";
}

}  // namespace view
