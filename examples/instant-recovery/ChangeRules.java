import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;

/** Which changes are granted to clients, as a file says that one can read: rules.txt tells its language. */
final class ChangeRules {
    enum Change { WRITE, ATTRIBUTES, RENAME, REMOVE }

    private static final class Rule {
        final boolean grants;
        final Change change;
        final long from;
        final long to;

        Rule(boolean grants, Change change, long from, long to) {
            this.grants = grants;
            this.change = change;
            this.from = from;
            this.to = to;
        }

        boolean fits(Change asked, long askedFrom, long askedTo) {
            return asked == change
                && (grants ? from <= askedFrom && askedTo <= to : askedFrom < to && from < askedTo);
        }
    }

    private final List<Rule> rules = new ArrayList<>();

    /** IOException with the number of a line that is no rule. */
    static ChangeRules read(Path file) throws IOException {
        ChangeRules result = new ChangeRules();
        List<String> lines = Files.readAllLines(file, StandardCharsets.UTF_8);
        for (int i = 0; i < lines.size(); i++) {
            String line = lines.get(i).replaceFirst("#.*", "").trim();
            try {
                if (!line.isEmpty()) {
                    result.rules.add(parse(line.split("\\s+")));
                }
            } catch (RuntimeException e) {
                throw new IOException(file + ", line " + (i + 1) + ": not a rule: " + line, e);
            }
        }
        return result;
    }

    private static Rule parse(String[] words) {
        boolean grants = words[0].equals("grant");
        Change change = Change.valueOf(words[1].toUpperCase(Locale.ROOT));
        boolean ranged = words.length == 4 && change == Change.WRITE;
        long from = ranged ? Long.parseLong(words[2]) : 0;
        long to = ranged ? Long.parseLong(words[3]) : Long.MAX_VALUE;
        if ((!grants && !words[0].equals("refuse")) || (!ranged && words.length != 2) || from < 0 || from >= to) {
            throw new IllegalArgumentException();
        }
        return new Rule(grants, change, from, to);
    }

    boolean grant(Change change) {
        return grant(change, 0, 1);
    }

    boolean grantWrite(long from, long to) {
        return grant(Change.WRITE, from, to);
    }

    private boolean grant(Change change, long from, long to) {
        for (Rule rule : rules) {
            if (rule.fits(change, from, to)) {
                return rule.grants;
            }
        }
        return false;
    }
}
