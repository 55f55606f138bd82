#include "run_report.h"

#include "support.h"

SaveTimes& SaveTimes::operator+=(const SaveTimes& other) {
    save += other.save;
    wait += other.wait;
    transfer += other.transfer;
    return *this;
}

BackupTotals& BackupTotals::operator+=(const BackupTotals& other) {
    attempted += other.attempted;
    failed += other.failed;
    failures += other.failures;
    seconds += other.seconds;
    bytes += other.bytes;
    return *this;
}

namespace {

constexpr int LargestUnit = 3;

ScaledAmount Scale(double amount, double limit, double step) {
    ScaledAmount scaled{amount, 0};
    while (scaled.value > limit && scaled.unit < LargestUnit) {
        scaled.value /= step;
        ++scaled.unit;
    }
    return scaled;
}

// The unit is a blank where an object's line has none, and nothing in a restore's.
constexpr const char* ObjectUnits[] = {" ", "K", "M", "G"};
constexpr const char* TotalUnits[] = {" ", "k", "M", "G"};
constexpr const char* RestoreUnits[] = {"", "K", "M", "G"};

// "name: seconds s rate", for one phase of an object.
void ReportPhase(const char* name, double seconds, std::int64_t bytes, const char* const* units) {
    if (seconds <= 0)
        return;
    const ScaledAmount rate = ScaleDecimal(static_cast<double>(bytes) / seconds);
    LogMessage("%s: %7.3f s %.3f %sB/s\n", name, seconds, rate.value, units[rate.unit]);
}

void ReportSaveTimes(const SaveTimes& seconds) {
    LogMessage("** Total Save Time: %.3f s\n", seconds.save);
    LogMessage("** Total Wait Time: %.3f s\n", seconds.wait);
    LogMessage("** Total Xfer Time: %.3f s\n", seconds.transfer);
}

void ReportNothingAttempted() {
    LogMessage("** No objects attempted\n");
}

} // namespace

ScaledAmount ScaleDecimal(double amount) {
    return Scale(amount, 2000, 1000);
}

ScaledAmount ScaleBinary(double amount) {
    return Scale(amount, 2048, 1024);
}

void ReportObject(std::int64_t bytes, const SaveTimes& times) {
    if (bytes >= 0) {
        const ScaledAmount size = ScaleDecimal(static_cast<double>(bytes));
        LogMessage("Size: %.3f %sB\n", size.value, ObjectUnits[size.unit]);
    }
    ReportPhase("Save", times.save, bytes, ObjectUnits);
    if (times.wait > 0)
        LogMessage("Wait: %7.3f s\n", times.wait);
    ReportPhase("Xfer", times.transfer, bytes, ObjectUnits);
}

void ReportWorker(std::uint32_t thread, const BackupTotals& totals) {
    if (totals.attempted == 0) {
        ReportNothingAttempted();
        return;
    }
    const ScaledAmount amount = ScaleBinary(static_cast<double>(totals.bytes));
    LogMessage("** Thread %u Complete\n", thread);
    LogMessage("** Backed up %.3f %sB\n", amount.value, TotalUnits[amount.unit]);
    ReportSaveTimes(totals.seconds);
    LogMessage("** Total Blocks Attempted: %llu\n", Printable(totals.attempted));
    LogMessage("** Total Blocks Failed   : %llu\n", Printable(totals.failed));
}

void ReportListing(const ListingTotals& listing, double seconds, bool always) {
    if (listing.list_bytes > 0) {
        const ScaledAmount amount = ScaleBinary(listing.list_bytes);
        LogMessage("** Total List Data: %.3f %sB\n", amount.value, TotalUnits[amount.unit]);
        LogMessage("** List Called    : %llu\n", Printable(listing.list_calls));
        LogMessage("** Total List Time: %.3f\n", seconds);
        LogMessage("** Objects Found  : %llu\n", Printable(listing.objects_found));
    }
    if (listing.parse_errors != 0 || always)
        LogMessage("** Parsing Errors : %llu\n", Printable(listing.parse_errors));
}

void ReportBackup(const BackupTotals& totals, double seconds) {
    if (totals.attempted == 0) {
        ReportNothingAttempted();
        return;
    }
    const ScaledAmount amount = ScaleBinary(static_cast<double>(totals.bytes));
    LogMessage("** Backed up %.3f %sB in %.3f s\n", amount.value, TotalUnits[amount.unit], seconds);
    ReportSaveTimes(totals.seconds);
    LogMessage("** Total Objects Attempted: %llu\n", Printable(totals.attempted));
    LogMessage("** Total Objects Failed   : %llu\n", Printable(totals.failed));
}

void ReportEntry(std::int64_t bytes, const RestoreTimes& times) {
    ReportPhase("Transfer ", times.transfer, bytes, RestoreUnits);
    ReportPhase("Restore  ", times.restore, bytes, RestoreUnits);
}

void ReportRestore(std::int64_t bytes, double seconds) {
    const auto amount = static_cast<double>(bytes);
    const ScaledAmount total = ScaleDecimal(amount);
    LogMessage("Restored %.3f %sBs in %f seconds\n", total.value, RestoreUnits[total.unit], seconds);
    if (seconds > 0) {
        const ScaledAmount rate = ScaleDecimal(amount / seconds);
        LogMessage("%.3f %sB/s\n", rate.value, RestoreUnits[rate.unit]);
    }
}
