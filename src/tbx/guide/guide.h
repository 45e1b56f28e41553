// The built-in guide: chooses the form in which it is shown.
#pragma once

// Shows the guide: as tabs on a terminal, through a pager on a small one, as plain text in a
// pipe. It is always shown in some form.
void guide_show();
