/// @file
/// A picture that fills the terminal and is kept up to date.
#pragma once

#include "output.h"

#include <termios.h>

#include <string>
#include <vector>

/// Has a screen of its own from resume() on, which is given back at the end, and takes what is typed where
/// standard input is the terminal: arrows, PgUp, PgDn, Home and End scroll, q ends.
class Screen {
public:
    explicit Screen(const Output& output);
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    struct Picture {
        std::vector<std::string> heading; ///< stays, as the notes below do
        std::vector<std::string> body;    ///< scrolls where there are more lines than fit
        std::vector<std::string> notes;
    };
    void draw(const Picture& picture);

    /// Where keys are read; -1: nowhere.
    int keyboard() const { return m_hasKeys ? 0 : -1; }
    /// Takes what was typed. @return false when that was q, or the terminal has gone
    bool readKeys();

    /// Gives the terminal back, and lets the shell suspend the process until it is told to go on.
    void suspend();
    /// Takes the terminal, also again, whatever it was used for meanwhile.
    void resume() const;

private:
    void giveBack() const;

    const Output& m_output;
    termios m_before{}; // how keys are read by others
    bool m_hasKeys = false;
    int m_first = 0; // line of the body that is drawn first
    int m_page = 1;  // lines of it that were drawn
};
