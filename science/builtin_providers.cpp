#include "science/builtin_providers.h"

#include <string_view>

namespace vostra::data {
namespace {

using C = ScienceCategory;

// Where a keyed service takes its key. Services that document another
// scheme can be given it from the custom-providers file.
struct Key {
    std::string_view env_var;
    AuthType type = AuthType::None;
    std::string_view param_name;
    std::string_view header_name;
};

constexpr Key kFree{};
constexpr Key inQuery(std::string_view env_var) {
    return {env_var, AuthType::ApiKey, "api_key", ""};
}
constexpr Key inHeader(std::string_view env_var) {
    return {env_var, AuthType::ApiKey, "", "X-API-KEY"};
}
constexpr Key inNamedHeader(std::string_view env_var, std::string_view header) {
    return {env_var, AuthType::ApiKey, "", header};
}
constexpr Key asBearer(std::string_view env_var) {
    return {env_var, AuthType::Bearer, "", ""};
}

struct Row {
    std::string_view id;
    std::string_view short_name;
    std::string_view long_name;
    std::string_view base_url;
    ScienceCategory category;
    // Requests per minute: the service's published limit where it has one,
    // else a polite figure for a shared public server.
    int rate_limit_rpm;
    Key key;
};

// clang-format off
constexpr Row kRows[] = {
    {"nasa", "NASA", "NASA Open APIs (APOD, near-Earth objects, Mars rovers)", "https://api.nasa.gov", C::Space, 30, inQuery("NASA_API_KEY")},
    {"esa", "ESA", "European Space Agency Science Archives", "https://archives.esac.esa.int", C::Space, 60, kFree},
    {"jaxa", "JAXA", "JAXA Earth Observation Data (G-Portal)", "https://gportal.jaxa.jp", C::Space, 30, kFree},
    {"spacex", "SpaceX", "SpaceX Launch Data", "https://api.spacexdata.com", C::Space, 60, kFree},
    {"iss", "ISS", "International Space Station Position", "https://api.wheretheiss.at/v1", C::Space, 60, kFree},
    {"lasp", "LASP", "LASP Interactive Solar Irradiance Datacenter", "https://lasp.colorado.edu/lisird/latis", C::Space, 30, kFree},
    {"mast", "MAST", "Mikulski Archive for Space Telescopes", "https://mast.stsci.edu/api/v0", C::Space, 60, kFree},
    {"exoplanet", "Exoplanet Archive", "NASA Exoplanet Archive", "https://exoplanetarchive.ipac.caltech.edu", C::Space, 60, kFree},
    {"vizier", "VizieR", "VizieR Astronomical Catalogues (CDS)", "https://vizier.cds.unistra.fr/viz-bin", C::Space, 60, kFree},
    {"simbad", "SIMBAD", "SIMBAD Astronomical Database (CDS)", "https://simbad.cds.unistra.fr/simbad", C::Space, 60, kFree},
    {"ned", "NED", "NASA/IPAC Extragalactic Database", "https://ned.ipac.caltech.edu", C::Space, 60, kFree},
    {"sdss", "SDSS", "Sloan Digital Sky Survey SkyServer", "https://skyserver.sdss.org/dr18/SkyServerWS", C::Space, 60, kFree},
    {"cern", "CERN Open Data", "CERN Open Data Portal", "https://opendata.cern.ch", C::Physics, 60, kFree},
    {"hepdata", "HEPData", "HEPData High-Energy Physics Data Repository", "https://www.hepdata.net", C::Physics, 60, kFree},
    {"gwosc", "GWOSC", "Gravitational Wave Open Science Center", "https://gwosc.org", C::Physics, 60, kFree},
    {"usgs", "USGS Earthquakes", "USGS Earthquake Hazards Program", "https://earthquake.usgs.gov", C::Earth, 60, kFree},
    {"noaa", "NOAA Weather", "NOAA National Weather Service", "https://api.weather.gov", C::Earth, 60, kFree},
    {"iris", "IRIS", "IRIS Seismological Data Services", "https://service.iris.edu", C::Earth, 60, kFree},
    {"gbif", "GBIF", "Global Biodiversity Information Facility", "https://api.gbif.org/v1", C::Biology, 60, kFree},
    {"obis", "OBIS", "Ocean Biodiversity Information System", "https://api.obis.org/v3", C::Biology, 60, kFree},
    {"openaq", "OpenAQ", "OpenAQ Air Quality Data", "https://api.openaq.org/v3", C::Earth, 60, inHeader("OPENAQ_API_KEY")},
    {"inaturalist", "iNaturalist", "iNaturalist Species Observations", "https://api.inaturalist.org/v1", C::Biology, 60, kFree},
    {"ebird", "eBird", "eBird Bird Observations (Cornell Lab)", "https://api.ebird.org/v2", C::Biology, 60, inNamedHeader("EBIRD_API_KEY", "x-ebirdapitoken")},
    {"copernicus", "Copernicus CDS", "Copernicus Climate Data Store", "https://cds.climate.copernicus.eu/api", C::Earth, 30, inHeader("CDS_API_KEY")},
    {"ncbi", "NCBI", "NCBI Entrez E-utilities", "https://eutils.ncbi.nlm.nih.gov/entrez/eutils", C::Biology, 180, inQuery("NCBI_API_KEY")},
    {"uniprot", "UniProt", "UniProt Protein Knowledgebase", "https://rest.uniprot.org", C::Biology, 120, kFree},
    {"pdb", "PDB", "Protein Data Bank in Europe (PDBe)", "https://www.ebi.ac.uk/pdbe", C::Biology, 120, kFree},
    {"ensembl", "Ensembl", "Ensembl Genome Annotation", "https://rest.ensembl.org", C::Biology, 600, kFree},
    {"ena", "ENA", "European Nucleotide Archive", "https://www.ebi.ac.uk/ena/portal/api", C::Biology, 120, kFree},
    {"mygene", "MyGene.info", "MyGene.info Gene Annotation", "https://mygene.info/v3", C::Biology, 120, kFree},
    {"chembl", "ChEMBL", "ChEMBL Bioactive Molecules", "https://www.ebi.ac.uk/chembl/api/data", C::Chemistry, 120, kFree},
    {"interpro", "InterPro", "InterPro Protein Families and Domains", "https://www.ebi.ac.uk/interpro/api", C::Biology, 120, kFree},
    {"reactome", "Reactome", "Reactome Pathway Knowledgebase", "https://reactome.org/ContentService", C::Biology, 120, kFree},
    {"kegg", "KEGG", "KEGG Pathways and Genomes", "https://rest.kegg.jp", C::Biology, 60, kFree},
    {"string", "STRING", "STRING Protein Interaction Networks", "https://string-db.org/api", C::Biology, 60, kFree},
    {"intact", "IntAct", "IntAct Molecular Interactions", "https://www.ebi.ac.uk/intact/ws", C::Biology, 60, kFree},
    {"quickgo", "QuickGO", "QuickGO Gene Ontology Annotations", "https://www.ebi.ac.uk/QuickGO/services", C::Biology, 120, kFree},
    {"biogrid", "BioGRID", "BioGRID Interaction Repository", "https://webservice.thebiogrid.org", C::Biology, 60, inQuery("BIOGRID_API_KEY")},
    {"myvariant", "MyVariant.info", "MyVariant.info Variant Annotation", "https://myvariant.info/v1", C::Biology, 120, kFree},
    {"omim", "OMIM", "Online Mendelian Inheritance in Man", "https://api.omim.org/api", C::Medicine, 30, inQuery("OMIM_API_KEY")},
    {"allen", "Allen Brain Map", "Allen Brain Atlas", "https://api.brain-map.org/api/v2", C::Biology, 60, kFree},
    {"clinicaltrials", "ClinicalTrials.gov", "ClinicalTrials.gov Study Registry", "https://clinicaltrials.gov/api/v2", C::Medicine, 60, kFree},
    {"openfda", "openFDA", "openFDA Drugs, Devices and Food", "https://api.fda.gov", C::Medicine, 240, inQuery("OPENFDA_API_KEY")},
    {"europepmc", "Europe PMC", "Europe PMC Life-Science Literature", "https://www.ebi.ac.uk/europepmc/webservices/rest", C::Literature, 120, kFree},
    {"gwas", "GWAS Catalog", "NHGRI-EBI GWAS Catalog", "https://www.ebi.ac.uk/gwas/rest/api", C::Medicine, 60, kFree},
    {"disgenet", "DisGeNET", "DisGeNET Gene-Disease Associations", "https://api.disgenet.com/api/v1", C::Medicine, 60, asBearer("DISGENET_API_KEY")},
    {"pharmgkb", "PharmGKB", "PharmGKB Pharmacogenomics Knowledgebase", "https://api.pharmgkb.org/v1", C::Medicine, 60, kFree},
    {"drugbank", "DrugBank", "DrugBank Drug Database", "https://api.drugbank.com/v1", C::Medicine, 60, inHeader("DRUGBANK_API_KEY")},
    {"pubchem", "PubChem", "PubChem Chemical Information (PUG REST)", "https://pubchem.ncbi.nlm.nih.gov/rest/pug", C::Chemistry, 300, kFree},
    {"materials", "Materials Project", "The Materials Project", "https://api.materialsproject.org", C::Materials, 60, inHeader("MP_API_KEY")},
    {"chemspider", "ChemSpider", "ChemSpider Chemical Structures (RSC)", "https://api.rsc.org/compounds/v1", C::Chemistry, 15, inHeader("CHEMSPIDER_API_KEY")},
    {"nist", "NIST WebBook", "NIST Chemistry WebBook", "https://webbook.nist.gov/cgi/cbook.cgi", C::Chemistry, 30, kFree},
    {"cod", "COD", "Crystallography Open Database", "https://www.crystallography.net/cod", C::Materials, 60, kFree},
    {"nomad", "NOMAD", "NOMAD Materials Data Repository", "https://nomad-lab.eu/prod/v1/api/v1", C::Materials, 60, kFree},
    {"iaea", "IAEA LiveChart", "IAEA Live Chart of Nuclides", "https://nds.iaea.org/relnsd/v1/data", C::Physics, 60, kFree},
    {"arxiv", "arXiv", "arXiv e-Print Archive", "https://export.arxiv.org/api", C::Literature, 20, kFree},
    {"semanticscholar", "Semantic Scholar", "Semantic Scholar Academic Graph", "https://api.semanticscholar.org", C::Literature, 60, asBearer("S2_API_KEY")},
    {"openalex", "OpenAlex", "OpenAlex Scholarly Works", "https://api.openalex.org", C::Literature, 600, kFree},
    {"crossref", "Crossref", "Crossref DOI Metadata", "https://api.crossref.org", C::Literature, 300, kFree},
    {"datacite", "DataCite", "DataCite DOI Registry", "https://api.datacite.org", C::Literature, 300, kFree},
    {"orcid", "ORCID", "ORCID Researcher Identifiers", "https://pub.orcid.org/v3.0", C::Literature, 300, kFree},
    {"usda_fdc", "FoodData Central", "USDA FoodData Central", "https://api.nal.usda.gov/fdc/v1", C::Food, 60, inQuery("USDA_API_KEY")},
    {"dsld", "DSLD", "NIH Dietary Supplement Label Database", "https://api.ods.od.nih.gov/dsld/v9", C::Food, 60, kFree},
    {"ods", "NIH ODS", "NIH Office of Dietary Supplements Fact Sheets", "https://ods.od.nih.gov/api", C::Food, 60, kFree},
    {"openfoodfacts", "Open Food Facts", "Open Food Facts Product Database", "https://world.openfoodfacts.org", C::Food, 100, kFree},
    {"usda_ers", "USDA ERS", "USDA Economic Research Service Data", "https://api.ers.usda.gov/data", C::Agriculture, 60, kFree},
    {"efsa", "EFSA", "European Food Safety Authority Open Data", "https://open.efsa.europa.eu", C::Food, 60, kFree},
    {"foodb", "FooDB", "FooDB Food Constituents Database", "https://foodb.ca", C::Food, 30, kFree},
    {"frida", "Frida", "Frida Danish Food Composition Database", "https://frida.fooddata.dk", C::Food, 30, kFree},
    {"faostat", "FAOSTAT", "FAO Food and Agriculture Statistics", "https://faostatservices.fao.org/api/v1", C::Agriculture, 60, kFree},
    {"agris", "AGRIS", "FAO AGRIS Agricultural Research Records", "https://agris.fao.org", C::Agriculture, 30, kFree},
    {"agricola", "AGRICOLA", "NAL AGRICOLA Agricultural Bibliography", "https://agricola.nal.usda.gov", C::Agriculture, 30, kFree},
    {"agrold", "AgroLD", "Agronomic Linked Data", "https://www.agrold.org", C::Agriculture, 30, kFree},
    {"amis", "AMIS", "Agricultural Market Information System", "https://www.amis-outlook.org", C::Agriculture, 30, kFree},
    {"agrovoc", "AGROVOC", "FAO AGROVOC Multilingual Thesaurus", "https://agrovoc.fao.org/browse/rest/v1", C::Agriculture, 60, kFree},
    {"agrirxiv", "agriRxiv", "agriRxiv Agricultural Preprints", "https://agrirxiv.org", C::Agriculture, 30, kFree},
    {"powo", "POWO", "Plants of the World Online (Kew)", "https://powo.science.kew.org/api/2", C::Biology, 60, kFree},
    {"ipni", "IPNI", "International Plant Names Index", "https://www.ipni.org/api/1", C::Biology, 60, kFree},
    {"kew", "Kew", "Royal Botanic Gardens, Kew Data Portal", "https://data.kew.org", C::Biology, 30, kFree},
    {"tair", "TAIR", "The Arabidopsis Information Resource", "https://www.arabidopsis.org", C::Biology, 30, kFree},
    {"wfo", "WFO", "World Flora Online Plant List", "https://list.worldfloraonline.org", C::Biology, 60, kFree},
    {"tropicos", "Tropicos", "Tropicos Botanical Database (Missouri Botanical Garden)", "https://services.tropicos.org", C::Biology, 60, inQuery("TROPICOS_API_KEY")},
    {"bhl", "BHL", "Biodiversity Heritage Library", "https://www.biodiversitylibrary.org/api3", C::Literature, 60, inQuery("BHL_API_KEY")},
    {"plantsdb", "USDA PLANTS", "USDA PLANTS Database", "https://plantsservices.sc.egov.usda.gov/api", C::Biology, 60, kFree},
    {"napralert", "NAPRALERT", "NAPRALERT Natural Products Database", "https://napralert.org", C::Chemistry, 30, inQuery("NAPRALERT_API_KEY")},
    {"imppat", "IMPPAT", "Indian Medicinal Plants, Phytochemistry and Therapeutics", "https://cb.imsc.res.in/imppat", C::Chemistry, 30, kFree},
    {"tcmsp", "TCMSP", "Traditional Chinese Medicine Systems Pharmacology Database", "https://old.tcmsp-e.com", C::Chemistry, 30, kFree},
    {"naedb", "NAEB", "Native American Ethnobotany Database", "https://naeb.brit.org", C::Biology, 30, kFree},
    {"mpns", "MPNS", "Medicinal Plant Names Services (Kew)", "https://mpns.science.kew.org", C::Biology, 30, kFree},
    {"igem", "iGEM Registry", "iGEM Registry of Standard Biological Parts", "https://parts.igem.org", C::Biology, 30, kFree},
    {"synbiohub", "SynBioHub", "SynBioHub Genetic Design Repository", "https://synbiohub.org", C::Biology, 60, kFree},
    {"bioparts", "BioParts", "Standard Biological Parts Collection", "https://bioparts.org", C::Biology, 30, kFree},
    {"addgene", "Addgene", "Addgene Plasmid Repository", "https://api.developers.addgene.org", C::Biology, 30, kFree},
    {"ice", "ICE", "JBEI Inventory of Composable Elements", "https://public-registry.jbei.org/rest", C::Biology, 30, kFree},
    {"alphafold", "AlphaFold DB", "AlphaFold Protein Structure Database", "https://alphafold.ebi.ac.uk/api", C::Biology, 120, kFree},
    {"pride", "PRIDE", "PRIDE Proteomics Archive", "https://www.ebi.ac.uk/pride/ws/archive/v2", C::Biology, 60, kFree},
    {"arrayexpress", "ArrayExpress", "ArrayExpress Functional Genomics (BioStudies)", "https://www.ebi.ac.uk/biostudies/api/v1", C::Biology, 60, kFree},
    {"metabolights", "MetaboLights", "MetaboLights Metabolomics Archive", "https://www.ebi.ac.uk/metabolights/ws", C::Biology, 60, kFree},
    {"biomodels", "BioModels", "BioModels Computational Models", "https://www.ebi.ac.uk/biomodels", C::Biology, 60, kFree},
    {"expressionatlas", "Expression Atlas", "Expression Atlas Gene Expression", "https://www.ebi.ac.uk/gxa", C::Biology, 60, kFree},
    {"worldbank", "World Bank", "World Bank Open Data", "https://api.worldbank.org/v2", C::Economics, 120, kFree},
    {"imf", "IMF", "IMF DataMapper", "https://www.imf.org/external/datamapper/api/v1", C::Economics, 60, kFree},
    {"oecd", "OECD", "OECD Data Explorer (SDMX)", "https://sdmx.oecd.org/public/rest", C::Economics, 20, kFree},
    {"fred", "FRED", "Federal Reserve Economic Data", "https://api.stlouisfed.org/fred", C::Economics, 120, inQuery("FRED_API_KEY")},
    {"eurostat", "Eurostat", "Eurostat European Statistics", "https://ec.europa.eu/eurostat/api/dissemination", C::Economics, 60, kFree},
    {"bis", "BIS", "Bank for International Settlements Statistics", "https://stats.bis.org/api/v1", C::Economics, 60, kFree},
    {"undata", "UNdata", "United Nations Data (SDMX)", "https://data.un.org/ws/rest", C::Economics, 60, kFree},
    {"ecb", "ECB", "European Central Bank Data Portal", "https://data-api.ecb.europa.eu/service", C::Economics, 60, kFree},
    {"dblp", "dblp", "dblp Computer Science Bibliography", "https://dblp.org", C::Literature, 60, kFree},
    {"acm", "ACM DL", "ACM Digital Library", "https://dl.acm.org", C::Literature, 30, kFree},
    {"ieee", "IEEE Xplore", "IEEE Xplore Digital Library", "https://ieeexploreapi.ieee.org/api/v1", C::Literature, 60, inQuery("IEEE_API_KEY")},
    {"pwc", "Papers with Code", "Papers with Code", "https://paperswithcode.com/api/v1", C::MachineLearning, 60, kFree},
    {"core", "CORE", "CORE Open Access Research Papers", "https://api.core.ac.uk/v3", C::Literature, 10, inQuery("CORE_API_KEY")},
    {"icpsr", "ICPSR", "ICPSR Social Science Data Archive", "https://www.icpsr.umich.edu", C::SocialScience, 30, kFree},
    {"cessda", "CESSDA", "CESSDA Social Science Data Catalogue", "https://datacatalogue.cessda.eu/api", C::SocialScience, 60, kFree},
    {"socarxiv", "SocArXiv", "SocArXiv Social Science Preprints (OSF)", "https://api.osf.io/v2", C::SocialScience, 60, kFree},
    {"datagov", "Data.gov", "Data.gov Open Government Data Catalog", "https://catalog.data.gov/api/3", C::General, 60, kFree},
    {"arda", "ARDA", "Association of Religion Data Archives", "https://www.thearda.com", C::SocialScience, 30, kFree},
    {"ukdata", "UK Data Service", "UK Data Service Catalogue", "https://datacatalogue.ukdataservice.ac.uk", C::SocialScience, 30, kFree},
    {"inspirehep", "INSPIRE-HEP", "INSPIRE High-Energy Physics Literature", "https://inspirehep.net/api", C::Physics, 60, kFree},
    {"pdg", "PDG", "Particle Data Group", "https://pdgapi.lbl.gov", C::Physics, 60, kFree},
    {"cds", "CDS", "CERN Document Server", "https://cds.cern.ch", C::Physics, 60, kFree},
    {"ads", "ADS", "NASA Astrophysics Data System", "https://api.adsabs.harvard.edu/v1", C::Space, 60, inHeader("ADS_API_KEY")},
    {"scoap3", "SCOAP3", "SCOAP3 Open Access Physics Articles", "https://repo.scoap3.org/api", C::Physics, 60, kFree},
    {"fermilab", "Fermilab", "Fermilab Publications and Open Data", "https://lss.fnal.gov", C::Physics, 30, kFree},
    {"nist_asd", "NIST ASD", "NIST Atomic Spectra Database", "https://physics.nist.gov/cgi-bin/ASD", C::Physics, 30, kFree},
    {"exfor", "EXFOR", "IAEA Experimental Nuclear Reaction Data", "https://nds.iaea.org/exfor", C::Physics, 30, kFree},
    {"endf", "ENDF", "Evaluated Nuclear Data File (IAEA)", "https://www-nds.iaea.org/endf", C::Physics, 30, kFree},
    {"nndc", "NNDC", "National Nuclear Data Center (BNL)", "https://www.nndc.bnl.gov", C::Physics, 30, kFree},
    {"nist_xray", "NIST X-Ray", "NIST X-Ray Mass Attenuation Coefficients", "https://physics.nist.gov/PhysRefData/XrayMassCoef", C::Physics, 30, kFree},
    {"kaeri", "KAERI", "KAERI Table of Nuclides", "https://atom.kaeri.re.kr", C::Physics, 30, kFree},
    {"tendl", "TENDL", "TALYS-based Evaluated Nuclear Data Library", "https://tendl.web.psi.ch", C::Physics, 30, kFree},
    {"usgs_water", "USGS Water Services", "USGS National Water Information System", "https://waterservices.usgs.gov/nwis", C::Earth, 60, kFree},
    {"usgs_waterapi", "USGS Water Data", "USGS Water Data OGC API", "https://api.waterdata.usgs.gov/ogcapi/v0", C::Earth, 60, kFree},
    {"nhd", "NHD", "USGS National Hydrography Dataset", "https://hydro.nationalmap.gov/arcgis/rest/services/nhd/MapServer", C::Earth, 30, kFree},
    {"grdc", "GRDC", "Global Runoff Data Centre", "https://grdc.bafg.de", C::Earth, 30, kFree},
    {"aquastat", "AQUASTAT", "FAO AQUASTAT Water and Agriculture Statistics", "https://data.apps.fao.org/aquastat", C::Earth, 30, kFree},
    {"gems", "GEMStat", "GEMS/Water Global Freshwater Quality Database", "https://gemstat.org", C::Earth, 30, kFree},
    {"geotechdata", "GeotechData", "Geotechnical Parameter Database", "https://www.geotechdata.info", C::Engineering, 30, kFree},
    {"casegeodb", "Case Histories", "Geotechnical Case Histories Database", "https://www.casehistories.geoengineer.org", C::Engineering, 30, kFree},
    {"asce", "ASCE Library", "American Society of Civil Engineers Library", "https://ascelibrary.org", C::Engineering, 30, kFree},
    {"hazus", "Hazus", "FEMA Hazus and OpenFEMA Hazard Data", "https://www.fema.gov/api/open/v2", C::Engineering, 60, kFree},
    {"eurocode", "Eurocodes", "JRC Eurocodes Structural Design Standards", "https://eurocodes.jrc.ec.europa.eu", C::Engineering, 30, kFree},
    {"geofabrik", "Geofabrik", "Geofabrik OpenStreetMap Extracts", "https://download.geofabrik.de", C::Earth, 30, kFree},
    {"optica", "Optica", "Optica Publishing Group", "https://opg.optica.org", C::Physics, 30, kFree},
    {"opticaopen", "Optica Open", "Optica Open Preprints", "https://preprints.opticaopen.org", C::Physics, 30, kFree},
    {"spie", "SPIE", "SPIE Digital Library", "https://www.spiedigitallibrary.org", C::Physics, 30, kFree},
    {"refractiveindex", "RefractiveIndex.INFO", "Refractive Index Database", "https://refractiveindex.info", C::Physics, 30, kFree},
    {"rpphotonics", "RP Photonics", "RP Photonics Encyclopedia", "https://www.rp-photonics.com", C::Physics, 30, kFree},
    {"photonicsdb", "PhotonicsDB", "Photonic Materials and Devices Database", "https://www.photonicsdb.org", C::Physics, 30, kFree},
    {"zbmath", "zbMATH Open", "zbMATH Open Mathematics Literature", "https://api.zbmath.org/v1", C::Mathematics, 60, kFree},
    {"oeis", "OEIS", "On-Line Encyclopedia of Integer Sequences", "https://oeis.org", C::Mathematics, 30, kFree},
    {"dlmf", "DLMF", "NIST Digital Library of Mathematical Functions", "https://dlmf.nist.gov", C::Mathematics, 30, kFree},
    {"mathworld", "MathWorld", "Wolfram MathWorld", "https://mathworld.wolfram.com", C::Mathematics, 30, kFree},
    {"nlab", "nLab", "nLab Mathematics Wiki", "https://ncatlab.org/nlab", C::Mathematics, 30, kFree},
    {"lmfdb", "LMFDB", "L-functions and Modular Forms Database", "https://www.lmfdb.org/api", C::Mathematics, 30, kFree},
    {"quandl", "Nasdaq Data Link", "Nasdaq Data Link (Quandl)", "https://data.nasdaq.com/api/v3", C::Economics, 60, inQuery("QUANDL_API_KEY")},
    {"ssrn", "SSRN", "Social Science Research Network", "https://www.ssrn.com", C::SocialScience, 30, kFree},
    {"alphavantage", "Alpha Vantage", "Alpha Vantage Market Data", "https://www.alphavantage.co", C::Economics, 5, inQuery("ALPHAVANTAGE_API_KEY")},
    {"yahoofinance", "Yahoo Finance", "Yahoo Finance Market Data", "https://query1.finance.yahoo.com", C::Economics, 60, kFree},
    {"openbb", "OpenBB", "OpenBB Financial Data Platform", "https://api.openbb.co", C::Economics, 60, kFree},
    {"finra", "FINRA", "FINRA Market Data", "https://api.finra.org", C::Economics, 60, kFree},
    {"itu", "ITU", "International Telecommunication Union Data", "https://www.itu.int", C::Engineering, 30, kFree},
    {"3gpp", "3GPP", "3GPP Mobile Telecommunication Standards", "https://www.3gpp.org", C::Engineering, 30, kFree},
    {"ietf", "IETF Datatracker", "IETF Datatracker (RFCs and Internet-Drafts)", "https://datatracker.ietf.org/api/v1", C::Engineering, 60, kFree},
    {"ieee802", "IEEE 802", "IEEE 802 LAN/MAN Standards", "https://www.ieee802.org", C::Engineering, 30, kFree},
    {"fcc", "FCC", "FCC Open Data", "https://opendata.fcc.gov", C::Engineering, 60, kFree},
    {"etsi", "ETSI", "European Telecommunications Standards Institute", "https://www.etsi.org", C::Engineering, 30, kFree},
    {"ros", "ROS", "Robot Operating System Documentation", "https://docs.ros.org", C::Robotics, 30, kFree},
    {"rosdistro", "rosdistro", "ROS Distribution Index", "https://raw.githubusercontent.com/ros/rosdistro/master", C::Robotics, 60, kFree},
    {"gazebo", "Gazebo", "Gazebo Fuel Simulation Models and Worlds", "https://fuel.gazebosim.org/1.0", C::Robotics, 60, kFree},
    {"openrobotics", "Open Robotics", "Open Robotics Projects", "https://www.openrobotics.org", C::Robotics, 30, kFree},
    {"ifac", "IFAC", "International Federation of Automatic Control", "https://www.ifac-control.org", C::Robotics, 30, kFree},
    {"moveit", "MoveIt", "MoveIt Motion Planning Framework", "https://moveit.ros.org", C::Robotics, 30, kFree},
    {"thingspeak", "ThingSpeak", "ThingSpeak IoT Sensor Channels", "https://api.thingspeak.com", C::Engineering, 60, inQuery("THINGSPEAK_API_KEY")},
    {"adafruitio", "Adafruit IO", "Adafruit IO Sensor Feeds", "https://io.adafruit.com/api/v2", C::Engineering, 30, inHeader("ADAFRUIT_IO_KEY")},
    {"openweathermap", "OpenWeather", "OpenWeatherMap Weather Data", "https://api.openweathermap.org/data/2.5", C::Earth, 60, inQuery("OPENWEATHER_API_KEY")},
    {"sensorweb", "Sensor Web", "52North Sensor Web Observations", "https://sensorweb.demo.52north.org", C::Earth, 30, kFree},
    {"wunderground", "Weather Underground", "Weather Underground Personal Weather Stations", "https://api.weather.com/v2", C::Earth, 30, inQuery("WU_API_KEY")},
    {"opensensors", "OpenSensors", "OpenSensors IoT Data", "https://api.opensensors.io/v1", C::Engineering, 30, inHeader("OPENSENSORS_API_KEY")},
    {"cantera", "Cantera", "Cantera Chemical Kinetics and Thermodynamics", "https://cantera.org", C::Chemistry, 30, kFree},
    {"coolprop", "CoolProp", "CoolProp Thermophysical Properties", "https://www.coolprop.org", C::Engineering, 30, kFree},
    {"rmg", "RMG", "Reaction Mechanism Generator Database", "https://rmg.mit.edu", C::Chemistry, 30, kFree},
    {"ddbst", "DDBST", "Dortmund Data Bank", "https://www.ddbst.com", C::Chemistry, 30, kFree},
    {"prode", "Prode", "Prode Thermodynamic Properties", "https://www.prode.com", C::Chemistry, 30, kFree},
    {"chemsafe", "CHEMSAFE", "CHEMSAFE Safety Characteristics Database", "https://www.chemsafe.ptb.de", C::Chemistry, 30, kFree},
    {"iec", "IEC", "International Electrotechnical Commission Standards", "https://webstore.iec.ch", C::Engineering, 30, kFree},
    {"openems", "openEMS", "openEMS Energy Management System", "https://openems.io", C::Engineering, 30, kFree},
    {"pier", "PIER", "California Energy Commission Research Reports", "https://www.energy.ca.gov", C::Engineering, 30, kFree},
    {"huggingface", "Hugging Face", "Hugging Face Model and Dataset Hub", "https://huggingface.co/api", C::MachineLearning, 60, kFree},
    {"mlcommons", "MLCommons", "MLCommons Benchmarks and Datasets", "https://mlcommons.org", C::MachineLearning, 30, kFree},
    {"kaggle", "Kaggle", "Kaggle Datasets and Competitions", "https://www.kaggle.com/api/v1", C::MachineLearning, 30, inHeader("KAGGLE_KEY")},
    {"openml", "OpenML", "OpenML Datasets and Experiments", "https://www.openml.org/api/v1/json", C::MachineLearning, 60, inQuery("OPENML_API_KEY")},
    {"wandb", "Weights & Biases", "Weights & Biases Experiment Tracking", "https://api.wandb.ai", C::MachineLearning, 30, inHeader("WANDB_API_KEY")},
    {"tensorflow", "TensorFlow Hub", "TensorFlow Hub Models", "https://tfhub.dev", C::MachineLearning, 30, kFree},
    {"rosindex", "ROS Index", "ROS Package Index", "https://index.ros.org", C::Robotics, 30, kFree},
    {"ieeeras", "IEEE RAS", "IEEE Robotics and Automation Society", "https://www.ieee-ras.org", C::Robotics, 30, kFree},
    {"robotshop", "RobotShop", "RobotShop Robot Parts Catalogue", "https://www.robotshop.com", C::Robotics, 30, kFree},
    {"robotsdb", "Robots Guide", "Robots Guide Robot Database", "https://robotsguide.com", C::Robotics, 30, kFree},
    {"robodk", "RoboDK", "RoboDK Robot Library", "https://robodk.com", C::Robotics, 30, kFree},
};
// clang-format on

ResponseMapping results(std::string path, std::string id, std::string title,
                        std::string description = "", std::string url = "") {
    return {std::move(path), std::move(title), std::move(description), std::move(url),
            std::move(id)};
}

QueryTemplate get(std::string name, std::string endpoint,
                  std::map<std::string, std::string> params = {}, ResponseMapping response = {}) {
    QueryTemplate query;
    query.name = std::move(name);
    query.endpoint = std::move(endpoint);
    query.params = std::move(params);
    query.response = std::move(response);
    return query;
}

QueryTemplate post(std::string name, std::string endpoint,
                   std::map<std::string, std::string> params, std::string body_template) {
    QueryTemplate query = get(std::move(name), std::move(endpoint), std::move(params));
    query.method = "POST";
    query.body_template = std::move(body_template);
    return query;
}

}  // namespace

std::vector<ScienceProvider> builtinProviders() {
    std::vector<ScienceProvider> providers;
    providers.reserve(std::size(kRows));
    for (const Row& row : kRows) {
        ScienceProvider p;
        p.id = row.id;
        p.name = row.short_name;
        p.description = row.long_name;
        p.base_url = row.base_url;
        p.category = row.category;
        p.rate_limit_rpm = row.rate_limit_rpm;
        p.auth = {row.key.type, std::string(row.key.param_name), std::string(row.key.header_name),
                  std::string(row.key.env_var)};
        providers.push_back(std::move(p));
    }
    return providers;
}

std::vector<std::pair<std::string, QueryTemplate>> builtinQueries() {
    // "{query}" is the caller's text (search words or an id), "{limit}" the
    // number of results wanted; a parameter left without a value is not sent.
    return {
        {"nasa", get("apod", "/planetary/apod", {{"date", "{date}"}})},
        {"nasa", get("neo", "/neo/rest/v1/feed",
                     {{"start_date", "{start_date}"}, {"end_date", "{end_date}"}})},
        {"nasa", get("lookup", "/neo/rest/v1/neo/{query}")},
        {"usgs",
         get("search", "/fdsnws/event/1/query",
             {{"format", "geojson"},
              {"starttime", "{starttime}"},
              {"endtime", "{endtime}"},
              {"minmagnitude", "{minmagnitude}"},
              {"limit", "{limit}"}},
             results("features", "id", "properties.title", "properties.place", "properties.url"))},
        {"usgs",
         get("details", "/fdsnws/event/1/query", {{"format", "geojson"}, {"eventid", "{query}"}})},
        {"noaa", get("lookup", "/points/{query}")},
        {"noaa", get("search", "/alerts/active", {{"area", "{query}"}},
                     results("features", "id", "properties.headline", "properties.description"))},
        {"ncbi",
         get("search", "/esearch.fcgi",
             {{"db", "pubmed"}, {"term", "{query}"}, {"retmax", "{limit}"}, {"retmode", "json"}},
             results("esearchresult.idlist", "", ""))},
        {"ncbi", get("details", "/esummary.fcgi",
                     {{"db", "pubmed"}, {"id", "{query}"}, {"retmode", "json"}})},
        {"ncbi",
         get("fetch", "/efetch.fcgi",
             {{"db", "pubmed"}, {"id", "{query}"}, {"rettype", "{rettype}"}, {"retmode", "text"}})},
        {"uniprot", get("search", "/uniprotkb/search",
                        {{"query", "{query}"}, {"size", "{limit}"}, {"format", "json"}},
                        results("results", "primaryAccession",
                                "proteinDescription.recommendedName.fullName.value"))},
        {"uniprot", get("lookup", "/uniprotkb/{query}", {{"format", "json"}})},
        {"pdb", get("search", "/search/pdb/select",
                    {{"q", "{query}"}, {"rows", "{limit}"}, {"wt", "json"}},
                    results("response.docs", "pdb_id", "title"))},
        {"pdb", get("lookup", "/api/pdb/entry/summary/{query}")},
        {"pubchem", get("lookup", "/compound/name/{query}/JSON")},
        {"pubchem", get("details",
                        "/compound/name/{query}/property/"
                        "MolecularFormula,MolecularWeight,CanonicalSMILES,IUPACName/JSON",
                        {}, results("PropertyTable.Properties", "CID", "IUPACName"))},
        {"pubchem", get("fetch", "/compound/cid/{query}/JSON")},
        {"materials",
         get("search", "/materials/summary/", {{"formula", "{query}"}, {"_limit", "{limit}"}},
             results("data", "material_id", "formula_pretty"))},
        {"materials", get("lookup", "/materials/summary/", {{"material_ids", "{query}"}})},
        {"cern",
         get("search", "/api/records/",
             {{"q", "{query}"}, {"type", "Dataset"}, {"size", "{limit}"}},
             results("hits.hits", "id", "metadata.title", "metadata.abstract.description"))},
        {"cern", get("lookup", "/api/records/{query}")},
        {"gwosc", get("search", "/eventapi/json/{query}/")},
        {"gwosc", get("lookup", "/eventapi/json/event/{query}/")},
        {"arxiv",
         get("search", "/query", {{"search_query", "all:{query}"}, {"max_results", "{limit}"}})},
        {"arxiv", get("lookup", "/query", {{"id_list", "{query}"}})},
        {"semanticscholar",
         get("search", "/graph/v1/paper/search",
             {{"query", "{query}"}, {"limit", "{limit}"}, {"fields", "title,abstract,url,year"}},
             results("data", "paperId", "title", "abstract", "url"))},
        {"semanticscholar",
         get("lookup", "/graph/v1/paper/{query}", {{"fields", "title,abstract,url,year,authors"}})},
        {"semanticscholar", post("batch", "/graph/v1/paper/batch", {{"fields", "title,url"}},
                                 R"({"ids":["{query}"]})")},
        {"openalex", get("search", "/works", {{"search", "{query}"}, {"per-page", "{limit}"}},
                         results("results", "id", "display_name", "", "doi"))},
        {"openalex", get("lookup", "/works/{query}")},
        {"crossref", get("search", "/works", {{"query", "{query}"}, {"rows", "{limit}"}},
                         results("message.items", "DOI", "title", "", "URL"))},
        {"crossref", get("lookup", "/works/{query}")},
        {"datacite", get("search", "/dois", {{"query", "{query}"}, {"page[size]", "{limit}"}},
                         results("data", "id", "attributes.titles"))},
        {"orcid", get("search", "/expanded-search/", {{"q", "{query}"}, {"rows", "{limit}"}})},
        {"orcid", get("lookup", "/{query}/record")},
        {"europepmc", get("search", "/search",
                          {{"query", "{query}"}, {"pageSize", "{limit}"}, {"format", "json"}},
                          results("resultList.result", "id", "title", "abstractText"))},
        {"gbif", get("search", "/species/search", {{"q", "{query}"}, {"limit", "{limit}"}},
                     results("results", "key", "scientificName"))},
        {"gbif", get("lookup", "/species/{query}")},
        {"inaturalist", get("search", "/taxa", {{"q", "{query}"}, {"per_page", "{limit}"}},
                            results("results", "id", "name"))},
        {"ensembl", get("lookup", "/lookup/id/{query}", {{"content-type", "application/json"}})},
        {"ensembl", get("search", "/xrefs/symbol/homo_sapiens/{query}",
                        {{"content-type", "application/json"}})},
        {"mygene", get("search", "/query", {{"q", "{query}"}, {"size", "{limit}"}},
                       results("hits", "_id", "symbol", "name"))},
        {"mygene", get("lookup", "/gene/{query}")},
        {"myvariant", get("lookup", "/variant/{query}")},
        {"chembl", get("search", "/molecule/search.json", {{"q", "{query}"}, {"limit", "{limit}"}},
                       results("molecules", "molecule_chembl_id", "pref_name"))},
        {"chembl", get("lookup", "/molecule/{query}.json")},
        {"interpro", get("lookup", "/entry/interpro/{query}")},
        {"reactome", get("search", "/search/query", {{"query", "{query}"}})},
        {"reactome", get("lookup", "/data/query/{query}")},
        {"kegg", get("search", "/find/genes/{query}")},
        {"kegg", get("lookup", "/get/{query}")},
        {"string", get("lookup", "/json/get_string_ids", {{"identifiers", "{query}"}})},
        {"alphafold", get("lookup", "/prediction/{query}")},
        {"clinicaltrials",
         get("search", "/studies", {{"query.term", "{query}"}, {"pageSize", "{limit}"}},
             results("studies", "protocolSection.identificationModule.nctId",
                     "protocolSection.identificationModule.briefTitle"))},
        {"clinicaltrials", get("lookup", "/studies/{query}")},
        {"openfda", get("search", "/drug/label.json", {{"search", "{query}"}, {"limit", "{limit}"}},
                        results("results", "id", "openfda.brand_name"))},
        {"usda_fdc", get("search", "/foods/search", {{"query", "{query}"}, {"pageSize", "{limit}"}},
                         results("foods", "fdcId", "description"))},
        {"usda_fdc", get("lookup", "/food/{query}")},
        {"openfoodfacts", get("lookup", "/api/v2/product/{query}.json")},
        {"openfoodfacts",
         get("search", "/cgi/search.pl",
             {{"search_terms", "{query}"}, {"page_size", "{limit}"}, {"json", "1"}},
             results("products", "code", "product_name"))},
        {"worldbank", get("lookup", "/indicator/{query}", {{"format", "json"}})},
        {"worldbank", get("fetch", "/country/all/indicator/{query}",
                          {{"format", "json"}, {"per_page", "{limit}"}})},
        {"fred", get("search", "/series/search",
                     {{"search_text", "{query}"}, {"limit", "{limit}"}, {"file_type", "json"}},
                     results("seriess", "id", "title", "notes"))},
        {"fred", get("fetch", "/series/observations",
                     {{"series_id", "{query}"}, {"limit", "{limit}"}, {"file_type", "json"}})},
        {"eurostat", get("fetch", "/statistics/1.0/data/{query}", {{"format", "JSON"}})},
        {"inspirehep", get("search", "/literature", {{"q", "{query}"}, {"size", "{limit}"}},
                           results("hits.hits", "id", "metadata.titles"))},
        {"hepdata",
         get("search", "/search/", {{"q", "{query}"}, {"size", "{limit}"}, {"format", "json"}})},
        {"dblp",
         get("search", "/search/publ/api", {{"q", "{query}"}, {"h", "{limit}"}, {"format", "json"}},
             results("result.hits.hit", "@id", "info.title", "", "info.url"))},
        {"oeis", get("search", "/search", {{"q", "{query}"}, {"fmt", "json"}})},
        {"huggingface", get("search", "/models", {{"search", "{query}"}, {"limit", "{limit}"}})},
        {"huggingface", get("lookup", "/models/{query}")},
        {"openml", get("lookup", "/data/{query}")},
        {"spacex", get("lookup", "/v5/launches/{query}")},
        {"iss", get("lookup", "/satellites/25544")},
        {"ietf", get("search", "/doc/document/",
                     {{"name__contains", "{query}"}, {"limit", "{limit}"}, {"format", "json"}},
                     results("objects", "name", "title", "abstract"))},
        {"datagov", get("search", "/action/package_search", {{"q", "{query}"}, {"rows", "{limit}"}},
                        results("result.results", "id", "title", "notes"))},
    };
}

}  // namespace vostra::data
