# ranger on one prepared case, timed inside R so that starting R and loading
# the data do not count.
#   Rscript bench/peers/ranger.R CASE_DIR RESULT_JSON
# CASE_DIR holds config.txt ("key value" lines) and the matrices as raw
# little-endian binaries written by bench/run.py: X_*.f64 column-major
# float64, y_train.i32 int32. Predictions go to pred_ranger.i32.
suppressPackageStartupMessages(library(ranger))

args <- commandArgs(trailingOnly = TRUE)
case_dir <- args[1]
result_path <- args[2]

config_lines <- strsplit(readLines(file.path(case_dir, "config.txt")), " ")
config <- setNames(lapply(config_lines, function(kv) as.numeric(kv[2])),
                   vapply(config_lines, function(kv) kv[1], ""))

read_matrix <- function(name, n_rows) {
  values <- readBin(file.path(case_dir, name), "double",
                    n = n_rows * config$n_features, size = 8, endian = "little")
  X <- matrix(values, nrow = n_rows)
  colnames(X) <- paste0("f", seq_len(config$n_features))
  X
}

status_kib <- function(field) {
  line <- grep(paste0("^", field, ":"), readLines("/proc/self/status"), value = TRUE)
  as.numeric(strsplit(trimws(sub(paste0(field, ":"), "", line)), " +")[[1]][1])
}

# Restart the kernel's peak-RSS counter so the peak read after fit is fit's.
reset_peak_rss <- function() {
  tryCatch({ writeLines("5", "/proc/self/clear_refs"); TRUE },
           error = function(e) FALSE, warning = function(w) FALSE)
}

X_train <- read_matrix("X_train.f64", config$n_train)
regression <- file.exists(file.path(case_dir, "y_train.f64"))
if (regression) {
  y_train <- readBin(file.path(case_dir, "y_train.f64"), "double",
                     n = config$n_train, size = 8, endian = "little")
} else {
  y_train <- factor(readBin(file.path(case_dir, "y_train.i32"), "integer",
                            n = config$n_train, size = 4, endian = "little"))
}
X_test <- read_matrix("X_test.f64", config$n_test)

invisible(gc())
rss_before_fit <- status_kib("VmRSS")
peak_was_reset <- reset_peak_rss()
start <- proc.time()[["elapsed"]]
forest <- ranger(x = X_train, y = y_train,
                 num.trees = config$n_trees, mtry = config$features_per_split,
                 splitrule = if (regression) "variance" else "gini", min.node.size = 1, max.depth = 0,
                 replace = TRUE, sample.fraction = 1,
                 importance = "none", write.forest = TRUE,
                 num.threads = config$n_threads, seed = config$seed,
                 verbose = FALSE)
fit_seconds <- proc.time()[["elapsed"]] - start
fit_peak_rss <- status_kib("VmHWM")

start <- proc.time()[["elapsed"]]
predictions <- predict(forest, data = X_test, num.threads = config$n_threads)$predictions
predict_seconds <- proc.time()[["elapsed"]] - start

con <- file(file.path(case_dir, "pred_ranger.bin"), "wb")
if (regression) {
  writeBin(as.double(predictions), con, size = 8, endian = "little")
} else {
  writeBin(as.integer(as.character(predictions)), con, size = 4, endian = "little")
}
close(con)

writeLines(sprintf(paste0(
  '{"fit_seconds": %.6f, "predict_seconds": %.6f, "fit_peak_rss_mib": %.3f, ',
  '"rss_before_fit_mib": %.3f, "peak_is_fit_only": %s, "version": "%s", "method": "exact", "task": "%s"}'),
  fit_seconds, predict_seconds, fit_peak_rss / 1024, rss_before_fit / 1024,
  tolower(as.character(peak_was_reset)), as.character(packageVersion("ranger")),
  if (regression) "regression" else "classification"),
  result_path)
