// Moment data as a magnetometer writes it: the temperature, field and moment of every measured
// row, and what the file's header says of the sample.
//
// Two formats are read:
// - The MPMS3 data file (".dat"): a "[Header]" section of lines such as
//   "INFO,10.2,SAMPLE_MASS" (other header lines are skipped), then "[Data]", a comma-separated
//   row of column names and the rows, in which fields may be empty. The temperature stands in
//   "Temperature (K)", the field in "Magnetic Field (Oe)"; the moment in "Moment (emu)" (VSM
//   mode) or in "DC Moment Fixed Ctr (emu)" and "DC Moment Free Ctr (emu)" (DC mode, where
//   "Moment (emu)" stays empty).
// - Plain columns of temperature (K), field (Oe) and moment (emu), separated by commas, tabs or
//   blanks, with or without a header row. A header row names the columns ("T", "Temperature
//   (K)", "H", "Field (Oe)", "Moment (emu)", ...; a field in kOe, T or mT is converted to Oe);
//   without one, the first three columns are T, H and the moment. Blank lines and lines that
//   begin with '#', ';', '!' or '%' are skipped.
//
// A row without a number in a column that is needed (an empty field, "nan", text) is skipped
// and counted, never read as 0. A row with fewer fields than the column names (or, without a
// header row, than three) is cut short, and the file is refused.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

// One measured row of a file.
struct MomentRow {
    double temperature = 0.0; // K
    double field = 0.0;       // Oe
    double moment = 0.0;      // emu
    int line = 0;             // its line in the file, from 1
};

// A number the file's header gives, when it gives one.
struct HeaderValue {
    bool given = false;
    double value = 0.0;
    std::string name; // the header's name for it ("SAMPLE_MASS")
};

enum class MomentFormat { Mpms3, Columns };

struct MomentFile {
    std::string path;
    MomentFormat format = MomentFormat::Columns;
    std::string momentColumn;    // the column the moments come from, as the file names it
    std::vector<MomentRow> rows; // in the file's order
    int skippedRows = 0;         // rows without a number in a needed column
    int firstSkippedLine = 0;    // the first of them (0: none)
    // What an MPMS3 header says of the sample (nothing, in plain columns).
    HeaderValue mass{false, 0.0, "SAMPLE_MASS"};                  // mg
    HeaderValue molarMass{false, 0.0, "SAMPLE_MOLECULAR_WEIGHT"}; // g mol-1
    // Some labs keep the sample's molar diamagnetic correction (cm3 mol-1) in SAMPLE_SIZE: a
    // convention of theirs, not of the instrument, so it is only ever offered as such.
    HeaderValue sampleSize{false, 0.0, "SAMPLE_SIZE"};
    std::string material; // SAMPLE_MATERIAL, "" when not given
};

// A file larger than this is refused before it is read: a day's measurement takes a few MiB.
inline constexpr std::size_t maxMomentFileBytes = std::size_t{64} << 20;

// The columns an MPMS3 file may hold the moment in, in the order they are preferred: a DC file
// fills both DC columns (and leaves "Moment (emu)" empty), a VSM file fills "Moment (emu)".
inline constexpr const char* mpmsMomentColumns[] = {"DC Moment Fixed Ctr (emu)", "Moment (emu)",
                                                    "DC Moment Free Ctr (emu)"};

// True when text is an MPMS3 data file: a line of it is "[Header]" or "[Data]".
bool isMpms3Text(std::string_view text);

// Reads text, the contents of the file at path (which names it in messages). The format is
// MPMS3 when a line is "[Header]" or "[Data]", else plain columns. The moment column of an
// MPMS3 file is the first of mpmsMomentColumns that any row fills; its other rows are skipped,
// never filled from another column. False, with a
// sentence in error that names the file and, where there is one, the line, when the file has
// no [Data] section, lacks a needed column, has a row cut short or has no row with all three
// numbers; file is then left as it was.
bool readMomentText(std::string_view text, const std::string& path, MomentFile& file,
                    std::string& error);

// Reads the file at path (a regular file of at most maxMomentFileBytes) as readMomentText does.
bool readMomentFile(const std::string& path, MomentFile& file, std::string& error);

} // namespace corvane
