package vex.client;

import java.util.ArrayList;
import java.util.Collections;
import java.util.List;

/** The filters that a certificate has to pass to sign. Immutable; any thread may use it. */
final class Selection {
    /** Every certificate passes. */
    static final Selection ALL = new Selection(Collections.emptyList());

    private final List<Filter> filters;

    private Selection(List<Filter> filters) {
        this.filters = filters;
    }

    static Selection of(List<Filter> filters) {
        return new Selection(Collections.unmodifiableList(new ArrayList<>(filters)));
    }

    /** The certificate with this fingerprint. */
    static Selection of(String fingerprint) {
        return ALL.with(Filter.fingerprint(fingerprint));
    }

    /** The certificates of this selection that pass a further filter. */
    Selection with(Filter filter) {
        List<Filter> more = new ArrayList<>(filters);
        more.add(filter);
        return new Selection(Collections.unmodifiableList(more));
    }

    List<Filter> filters() {
        return filters;
    }

    /** Two objects are equal if they have equal filters in the same order. */
    @Override
    public boolean equals(Object other) {
        return other instanceof Selection && filters.equals(((Selection) other).filters);
    }

    @Override
    public int hashCode() {
        return filters.hashCode();
    }
}
