// give.h: migrate on the old PC.
#pragma once

// Shows the PIN (or waits for the PC it was linked with before, with bResume), answers what the new PC asks, and ends
// when everything is there or when the person stops it. The exit code.
int Give(bool bResume);
