#pragma once

/// The pieces of code in the guide that no example contains, one function for each page.
void tasks();
void timers();
void groups();
void taskControls();
void endings();
void exports();
void traces();
void failures();
void reports();
void helpers();
