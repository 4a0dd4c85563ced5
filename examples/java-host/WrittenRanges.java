import java.util.ArrayList;
import java.util.List;

/** The ranges of a file that were written: in order, and joined where they touch. Any thread may use it. */
final class WrittenRanges {
    private static final class Range {
        final long start;
        final long end;

        Range(long start, long end) {
            this.start = start;
            this.end = end;
        }
    }

    private final List<Range> ranges = new ArrayList<>();

    synchronized void add(long offset, long length) {
        long start = offset;
        long end = offset + length;
        int at = 0;
        while (at < ranges.size() && ranges.get(at).end < start) {
            at++;
        }
        while (at < ranges.size() && ranges.get(at).start <= end) {
            Range joined = ranges.remove(at);
            start = Math.min(start, joined.start);
            end = Math.max(end, joined.end);
        }
        ranges.add(at, new Range(start, end));
    }

    /** For example "[0, 4096) [8192, 12288)". */
    @Override
    public synchronized String toString() {
        StringBuilder text = new StringBuilder();
        for (Range range : ranges) {
            text.append(text.length() > 0 ? " " : "").append('[').append(range.start).append(", ").append(range.end)
                .append(')');
        }
        return text.length() > 0 ? text.toString() : "none";
    }
}
