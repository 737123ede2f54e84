// What a run leaves in a folder: its seconds as CSV, and its picture.
#ifndef FLEET_OUTPUT_FILES_H_
#define FLEET_OUTPUT_FILES_H_

#include <string>
#include <vector>

#include "fleet/model/books.h"

namespace quenor::fleet {

std::string Csv(const std::vector<Row>& rows);

// What gnuplot is told to draw `rows` into the file `svg`: one page of five pictures.
std::string PlotScript(const Scenario& scenario, const std::vector<Row>& rows,
                       const std::string& svg);

// Writes NAME.csv and, by gnuplot, NAME.svg into the folder, which it makes. Throws
// std::runtime_error with one line that says what could not be written, and why.
void WriteFiles(const std::string& folder, const Scenario& scenario, const std::vector<Row>& rows);

}  // namespace quenor::fleet

#endif  // FLEET_OUTPUT_FILES_H_
