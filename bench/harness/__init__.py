"""What the measurements have in common: volumes, the program under measurement, floors, results."""
